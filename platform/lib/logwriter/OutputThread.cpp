// OutputThread.cpp - building a writer, and its thread: the only code that
// takes records off the queue and, while it runs, the only code that touches
// the writer's files.
//
// The thread takes whatever is queued, up to a batch bound, writes it, and
// hands the batch to the kernel before it looks for more. When the queue runs
// dry after work it naps briefly before it waits on the queue, so that
// producers who keep coming find a writer that needs no waking.
#include <cerrno>
#include <cstdio>

#include "ToviBaseUtil.h"
#include "logwriter/RecordBlock.h"
#include "logwriter/RecordSink.h"
#include "logwriter/ToviLogRecord.h"
#include "logwriter/ToviLogWriter.h"
#include "port/ToviPort.h"

namespace {
// How often the idle writer thread looks at the stop flag, so that a stop
// never depends on an end marker reaching the queue.
constexpr unsigned kIdleWakeMs = 100;
// The record bytes written between two hand-overs to the kernel.
constexpr std::size_t kBatchRecordBytes = 64 * 1024;
// The nap after a batch that emptied the queue.
constexpr unsigned kDryNapUs = 2000;

std::string DirectoryOf(const LogWriterOptions& options) {
  if (options.logPath.empty()) return ToviGetDefaultLogPath();
  return options.logPath.back() == '/' ? options.logPath : options.logPath + '/';
}

LogFileSet::Settings FileSettings(const LogWriterOptions& options, const std::string& dir) {
  LogFileSet::Settings settings;
  settings.dir = dir;
  settings.prefix = options.prefix;
  settings.header = options.header;
  settings.maxFileBytes = options.maxFileBytes;
  return settings;
}
}  // namespace

ToviLogWriter::ToviLogWriter(const LogWriterOptions& options)
    : m_Options(options),
      m_strLogPath(DirectoryOf(options)),
      m_Queue(options.heldBackRecords),
      m_Archive(m_strLogPath, options.prefix, options.archivesKept),
      m_Files(FileSettings(options, m_strLogPath), m_Queue, m_Archive, m_bStopRequested) {
  // Joinable, so that the stop sequence returns the moment the thread has
  // ended, and no thread of the library outlives its writer.
  m_bStarted = toviport::StartThread(&ToviLogWriter::OutputThread, this, m_hThread);
}

void* ToviLogWriter::OutputThread(void* arg) {
  ToviLogWriter* self = static_cast<ToviLogWriter*>(arg);
  // The writer catches up in bursts; a burst must not push aside the very
  // threads whose records it writes.
  toviport::MakeBackgroundThread();

  LogFileSet& files = self->m_Files;
  self->m_Archive.Maintain();
  if (!files.OpenUntilStopped()) {
    self->m_Queue.SetWriterGone();
    return nullptr;
  }

  files.WriteText("This is the first log file\n");
  char line[60];
  std::snprintf(line, sizeof line, "Thread handle output string is 0x%x\n",
                toviport::CurrentThreadId());
  files.WriteText(line);
  if (!files.Flush()) files.RecoverFromFailedWrite();

  self->DrainOutputQueue();

  self->ForwardBatch();
  self->m_Console.Flush(files);
  self->m_Console.ReportDrops(files);
  files.ReportDroppedRecords();
  files.WriteText("thread handle output string exit\n");
  files.Flush();
  // The last touch of the writer: from here on the stopping thread owns it.
  self->m_Queue.SetWriterGone();
  return nullptr;
}

void ToviLogWriter::DrainOutputQueue() {
  bool dry = true;
  for (;;) {
    if (m_bStopRequested.load(std::memory_order_acquire) && m_Queue.OutputCount() == 0) return;
    ACE_Message_Block* chain = nullptr;
    if (m_Queue.TakeAll(chain, dry ? kIdleWakeMs : 0) == -1) {
      if (errno == EWOULDBLOCK) {
        if (!dry) toviport::SleepUs(kDryNapUs);
        dry = true;
        continue;
      }
      m_Files.WriteText("can't get message block\n");
      m_Files.Flush();
      m_Files.SleepUnlessStopped(100);
      continue;
    }
    dry = false;
    if (WriteBatch(chain)) return;
  }
}

bool ToviLogWriter::WriteBatch(ACE_Message_Block* chain) {
  // What was written since the last hand-over, in queue bytes and lengths.
  std::size_t bytes = 0;
  std::size_t length = 0;
  const auto handOver = [&] {
    // The file first: a console that is slow must not keep records from it.
    m_Files.HandOver();
    ForwardBatch();
    m_Console.Flush(m_Files);
    m_Queue.Release(bytes, length);
    bytes = length = 0;
  };
  for (ACE_Message_Block* block = chain; block != nullptr;) {
    ACE_Message_Block* next = block->next();
    block->next(nullptr);
    bytes += RecordQueue::Charge(block);
    length += block->length();
    ToviLogRecord* record = recordblock::RecordIn(block);
    const bool ended = record->IsEndMarker();
    if (ended) {
      // What was queued behind the marker stays for the stop sequence to
      // count.
      if (next != nullptr) m_Queue.PutBack(next);
    } else if (record->HasData()) {
      WriteRecord(record, false);
    } else {
      m_Files.WriteText("can't get output data\n");
    }
    recordblock::Release(block);
    if (ended) {
      handOver();
      return true;
    }
    if (length >= kBatchRecordBytes) handOver();
    block = next;
  }
  handOver();
  return false;
}

bool ToviLogWriter::AttachSink(std::unique_ptr<RecordSink> sink) {
  RecordSink* none = nullptr;
  if (!sink || !m_forwardSink.compare_exchange_strong(none, sink.get(), std::memory_order_acq_rel)) {
    return false;
  }
  sink.release();
  return true;
}

void ToviLogWriter::ForwardBatch() {
  if (RecordSink* sink = m_forwardSink.load(std::memory_order_acquire)) sink->HandOver();
}
