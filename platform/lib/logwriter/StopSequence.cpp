// StopSequence.cpp - deleting a writer.
//
// The writer thread is asked to stop behind the records already queued, so
// those are written; the destructor then joins the thread, counts and drops
// what is left, and closes the file. Every wait here is bounded: the writer
// thread notices a stop within 100 ms whether or not the end marker reached
// the queue, and a marker that finds no room on a writer that cannot write
// is given up after about a second.
#include <ace/ACE.h>
#include <ace/OS_NS_stdio.h>
#include <ace/Thread.h>

#include "logwriter/RecordBlock.h"
#include "logwriter/ToviLogRecord.h"
#include "logwriter/ToviLogWriter.h"
#include "port/ToviPort.h"

void ToviLogWriter::ClearQueueAtStop(RecordQueue& queue, const char* failure) {
  while (queue.message_count() > 0) {
    ACE_Message_Block* block = nullptr;
    ACE_Time_Value now_or_never = ACE_Time_Value::zero;
    if (queue.dequeue_head(block, &now_or_never) == -1) {
      WriteString(failure);
      return;
    }
    recordblock::Release(block);
  }
}

// A thread that saw the stop flag on an empty queue ends without waiting for
// the marker; the marker then stands alone at the head and is no record.
void ToviLogWriter::DiscardUnusedEndMarker() {
  ACE_Message_Block* head = nullptr;
  ACE_Time_Value now_or_never = ACE_Time_Value::zero;
  if (m_OutputQueue.peek_dequeue_head(head, &now_or_never) == -1 || head == nullptr) return;
  if (!recordblock::RecordIn(head)->IsEndMarker()) return;
  if (m_OutputQueue.dequeue_head(head, &now_or_never) != -1) recordblock::Release(head);
}

ToviLogWriter::~ToviLogWriter() {
  m_bStopRequested.store(true, std::memory_order_release);
  if (m_bStarted) {
    try {
      ACE_Message_Block* marker = recordblock::Acquire(recordblock::RecordBytes(0));
      if (marker != nullptr && !EnqueueOutput(marker)) recordblock::Release(marker);
      ACE_Thread::join(m_hThread, nullptr);
      WaitForArchiving();
      DiscardUnusedEndMarker();

      // Drops counted after the thread's last word (producers that gave up
      // on a writer without a file).
      ReportDroppedRecords();
      char stamp[512];
      char line[512];
      ACE::timestamp(stamp, sizeof stamp, false);
      ACE_OS::snprintf(line, sizeof line, "%s about to clear m_DiscardQueue(%d)\n", stamp,
                    static_cast<int>(m_DiscardQueue.message_count()));
      WriteString(line);
      ClearQueueAtStop(m_DiscardQueue, "dequeue from m_DiscardQueue fail.\n");

      ACE::timestamp(stamp, sizeof stamp, false);
      ACE_OS::snprintf(line, sizeof line, "%s about to clear m_OutputQueue(%d)\n", stamp,
                    static_cast<int>(m_OutputQueue.message_count()));
      WriteString(line);
      ClearQueueAtStop(m_OutputQueue, "dequeue from m_OutputQueue fail.\n");

      ACE::timestamp(stamp, sizeof stamp, false);
      ACE_OS::snprintf(line, sizeof line, "%s after m_OutputQueue cleared\n", stamp);
      WriteString(line);
    } catch (...) {
      // A destructor must not throw; the file is still closed below.
    }
  }
  CloseLogFile();
}
