// RecordQueue.cpp - handing records to the writer thread.
//
// A record with an output goes onto m_OutputQueue, which the writer thread
// drains in order. When that queue is full a producer waits for room, as long
// as the writer is making progress; once the writer cannot write (its thread
// has ended, or no log file can be created) the producer gives up after about
// a second and the record is dropped and counted, so no thread ever waits on
// a writer that will not come back. A record with no output goes onto the
// bounded m_DiscardQueue, whose oldest record makes room for the newest.
#include <cerrno>

#include <ace/Message_Block.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/Time_Value.h>

#include "logwriter/RecordBlock.h"
#include "logwriter/ToviLogRecord.h"
#include "logwriter/ToviLogWriter.h"

namespace {
// How long a producer waits for room in one go, and how many such waits it
// spends on a writer that cannot write before dropping its record.
const ACE_Time_Value kRoomWaitSlice(0, 100 * 1000);
constexpr int kStalledSlices = 10;
}  // namespace

bool ToviLogWriter::EnqueueOutput(ACE_Message_Block* block) {
  // The common case: there is room, and no clock is read.
  if (m_OutputQueue.enqueue_record(block) != -1) return true;

  int stalledSlices = 0;
  for (;;) {
    if (errno != EWOULDBLOCK) return false;  // the queue was shut down
    // An ended thread will never make room; a writer without a file might
    // get one back within the second.
    if (m_bThreadExited.load(std::memory_order_acquire)) return false;
    if (m_bNoFile.load(std::memory_order_acquire)) {
      if (++stalledSlices > kStalledSlices) return false;
    } else {
      stalledSlices = 0;
    }
    ACE_Time_Value deadline = ACE_OS::gettimeofday() + kRoomWaitSlice;
    if (m_OutputQueue.enqueue_record(block, &deadline) != -1) return true;
  }
}

bool ToviLogWriter::PutRecord(ACE_Message_Block* block) {
  if (block == nullptr) return false;
  const ToviLogRecord* record = recordblock::RecordIn(block);

  if (record->m_bPrint || record->m_bLog) {
    if (EnqueueOutput(block)) return true;
    m_nDroppedRecords.fetch_add(1, std::memory_order_relaxed);
    recordblock::Release(block);
    return false;
  }

  if (m_nFiltLogBufSize == 0) {
    recordblock::Release(block);
    return true;
  }
  // The held-back store never makes a tracing thread wait.
  ACE_Time_Value now_or_never = ACE_Time_Value::zero;
  if (m_DiscardQueue.message_count() >= m_nFiltLogBufSize) {
    // Another producer may have emptied the queue since the count; then
    // there is nothing to drop.
    ACE_Message_Block* oldest = nullptr;
    if (m_DiscardQueue.dequeue_head(oldest, &now_or_never) == -1) {
      if (errno != EWOULDBLOCK) {
        recordblock::Release(block);
        return false;
      }
    } else {
      recordblock::Release(oldest);
    }
  }
  if (m_DiscardQueue.enqueue_tail(block, &now_or_never) != -1) return true;
  recordblock::Release(block);
  return false;
}

void ToviLogWriter::FlushDiscardQueue() {
  while (!m_DiscardQueue.is_empty()) {
    ACE_Message_Block* block = nullptr;
    ACE_Time_Value now_or_never = ACE_Time_Value::zero;
    if (m_DiscardQueue.dequeue_head(block, &now_or_never) == -1) break;
    if (block == nullptr) continue;
    ToviLogRecord* record = recordblock::RecordIn(block);
    record->m_bLog = true;
    record->m_bPrint = true;
    WriteRecord(record, true);
    recordblock::Release(block);
  }
}
