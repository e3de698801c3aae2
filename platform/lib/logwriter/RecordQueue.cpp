// RecordQueue.cpp - the held-back store, and the drop count.
#include "logwriter/RecordQueue.h"

#include <cerrno>

#include <ace/Message_Block.h>
#include <ace/Time_Value.h>

#include "logwriter/RecordBlock.h"
#include "logwriter/ToviLogRecord.h"

RecordQueue::RecordQueue(unsigned heldBack) : m_heldBackLimit(heldBack) {
  m_heldBack.high_water_mark(recordblock::kQueueWaterMark);
  m_heldBack.low_water_mark(recordblock::kQueueWaterMark);
}

bool RecordQueue::HoldBack(ACE_Message_Block* block) {
  if (block == nullptr) return false;
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
  // Asked for every record written: a load, and a locked exchange only
  // when there is something to take.
  const auto take = [](std::atomic<uint64_t>& count) {
    return count.load(std::memory_order_relaxed) == 0 ? 0 : count.exchange(0, std::memory_order_relaxed);
  };
  std::atomic<uint64_t>* kept = m_dropped.load(std::memory_order_acquire);
  return take(m_ownDropped) + (kept != &m_ownDropped ? take(*kept) : 0);
}

uint64_t RecordQueue::DroppedSoFar() const {
  const std::atomic<uint64_t>* kept = m_dropped.load(std::memory_order_acquire);
  uint64_t count = m_ownDropped.load(std::memory_order_relaxed);
  if (kept != &m_ownDropped) count += kept->load(std::memory_order_relaxed);
  return count;
}

bool RecordQueue::ClearHeldBack() {
  while (m_heldBack.message_count() > 0) {
    ACE_Message_Block* block = nullptr;
    ACE_Time_Value now_or_never = ACE_Time_Value::zero;
    if (m_heldBack.dequeue_head(block, &now_or_never) == -1) return false;
    recordblock::Release(block);
  }
  return true;
}
