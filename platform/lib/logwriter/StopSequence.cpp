// StopSequence.cpp - deleting a writer.
//
// The writer thread is asked to stop behind the records already queued, so
// those are written; the destructor then joins the thread, counts and drops
// what is left, and closes the file. Every wait here is bounded: the writer
// thread notices a stop within 100 ms whether or not the end marker reached
// the queue, and a marker that finds no room on a writer that cannot write
// is given up after about a second.
#include <cstdio>

#include "logwriter/RecordSink.h"
#include "logwriter/TimeStamp.h"
#include "logwriter/ToviLogWriter.h"

namespace {
// "<time stamp> <what>" with the count of records a queue still holds.
void WriteStopLine(LogFileSet& files, const char* format, std::size_t count) {
  char stamp[timestamp::kLength + 1];
  char line[512];
  timestamp::FormatNow(stamp);
  std::snprintf(line, sizeof line, format, stamp, static_cast<int>(count));
  files.WriteText(line);
}
}  // namespace

ToviLogWriter::~ToviLogWriter() {
  m_bStopRequested.store(true, std::memory_order_release);
  if (m_bStarted) {
    try {
      m_Queue.PutEndMarker();
      toviport::JoinThread(m_hThread);
      m_Archive.Wait();
      m_Queue.DiscardUnusedEndMarker();

      // Drops counted after the thread's last word (producers that gave up
      // on a writer without a file).
      m_Files.ReportDroppedRecords();
      WriteStopLine(m_Files, "%s about to clear m_DiscardQueue(%d)\n", m_Queue.HeldBackCount());
      if (!m_Queue.ClearHeldBack()) m_Files.WriteText("dequeue from m_DiscardQueue fail.\n");
      WriteStopLine(m_Files, "%s about to clear m_OutputQueue(%d)\n", m_Queue.OutputCount());
      if (!m_Queue.ClearOutput()) m_Files.WriteText("dequeue from m_OutputQueue fail.\n");
      WriteStopLine(m_Files, "%s after m_OutputQueue cleared\n", 0);
    } catch (...) {
      // A destructor must not throw; the file is still closed below.
    }
  }
  m_Files.Close();
  delete m_forwardSink.exchange(nullptr, std::memory_order_acq_rel);
}
