// RecordQueue.cpp - handing records to the writer thread, and what is left
// of them at a stop.
#include "logwriter/RecordQueue.h"

#include <cerrno>

#include <ace/Message_Block.h>
#include <ace/Time_Value.h>

#include "logwriter/RecordBlock.h"
#include "logwriter/ToviLogRecord.h"
#include "port/ToviPort.h"

namespace {
// How long a producer waits for room in one go before it looks again
// whether the writer still makes progress.
constexpr unsigned kRoomWaitSliceMs = 100;
}  // namespace

RecordQueue::RecordQueue(unsigned heldBack) : m_heldBackLimit(heldBack) {
  m_output.high_water_mark(recordblock::kQueueWaterMark);
  m_output.low_water_mark(recordblock::kQueueWaterMark);
  m_heldBack.high_water_mark(recordblock::kQueueWaterMark);
  m_heldBack.low_water_mark(recordblock::kQueueWaterMark);
}

bool RecordQueue::EnqueueOutput(ACE_Message_Block* block) {
  // The common case: there is room, and no clock is read.
  if (m_output.enqueue_record(block) != -1) return true;

  for (;;) {
    if (errno != EWOULDBLOCK) return false;  // the queue was shut down
    // A writer that cannot write (no file, a full disk) or whose thread has
    // ended makes no room: waiting for it would stop the application, not
    // just its logging. Only a writer that is making progress is waited
    // for.
    if (!WriterProgressing()) return false;
    ACE_Time_Value deadline = toviport::DeadlineAfterMs(kRoomWaitSliceMs);
    if (m_output.enqueue_record(block, &deadline) != -1) return true;
  }
}

bool RecordQueue::Put(ACE_Message_Block* block) {
  if (block == nullptr) return false;
  const ToviLogRecord* record = recordblock::RecordIn(block);

  if (record->m_bPrint || record->m_bLog) {
    if (EnqueueOutput(block)) return true;
    CountDropped(1);
    recordblock::Release(block);
    return false;
  }

  if (m_heldBackLimit == 0) {
    recordblock::Release(block);
    return true;
  }
  // The held-back store never makes a tracing thread wait.
  ACE_Time_Value now_or_never = ACE_Time_Value::zero;
  if (m_heldBack.message_count() >= m_heldBackLimit) {
    // Another producer may have emptied the store since the count; then
    // there is nothing to drop.
    ACE_Message_Block* oldest = nullptr;
    if (m_heldBack.dequeue_head(oldest, &now_or_never) == -1) {
      if (errno != EWOULDBLOCK) {
        recordblock::Release(block);
        return false;
      }
    } else {
      recordblock::Release(oldest);
    }
  }
  if (m_heldBack.enqueue_tail(block, &now_or_never) != -1) return true;
  recordblock::Release(block);
  return false;
}

void RecordQueue::PutEndMarker() {
  ACE_Message_Block* marker = recordblock::Acquire(recordblock::RecordBytes(0));
  if (marker != nullptr && !EnqueueOutput(marker)) recordblock::Release(marker);
}

int RecordQueue::TakeAll(ACE_Message_Block*& chain, unsigned waitMs) {
  ACE_Time_Value wait = waitMs > 0 ? toviport::DeadlineAfterMs(waitMs) : ACE_Time_Value::zero;
  return m_output.dequeue_all(chain, &wait);
}

ACE_Message_Block* RecordQueue::TakeHeldBack() {
  ACE_Message_Block* block = nullptr;
  ACE_Time_Value now_or_never = ACE_Time_Value::zero;
  while (!m_heldBack.is_empty()) {
    if (m_heldBack.dequeue_head(block, &now_or_never) == -1) return nullptr;
    if (block != nullptr) return block;
  }
  return nullptr;
}

uint64_t RecordQueue::TakeDropped() {
  if (m_dropped->load(std::memory_order_relaxed) == 0) return 0;
  return m_dropped->exchange(0, std::memory_order_relaxed);
}

// A thread that saw the stop flag on an empty queue ends without waiting for
// the marker; the marker then stands alone at the head and is no record.
void RecordQueue::DiscardUnusedEndMarker() {
  ACE_Message_Block* head = nullptr;
  ACE_Time_Value now_or_never = ACE_Time_Value::zero;
  if (m_output.peek_dequeue_head(head, &now_or_never) == -1 || head == nullptr) return;
  if (!recordblock::RecordIn(head)->IsEndMarker()) return;
  if (m_output.dequeue_head(head, &now_or_never) != -1) recordblock::Release(head);
}

bool RecordQueue::Clear(RecordBatchQueue& queue, std::size_t& records) {
  while (queue.message_count() > 0) {
    ACE_Message_Block* block = nullptr;
    ACE_Time_Value now_or_never = ACE_Time_Value::zero;
    if (queue.dequeue_head(block, &now_or_never) == -1) return false;
    if (!recordblock::RecordIn(block)->IsEndMarker()) ++records;
    recordblock::Release(block);
  }
  return true;
}
