// RecordQueue.h - the records between the tracing threads and one writer
// thread.
//
// A record with an output goes onto the output queue, which the writer
// thread drains in order. When that queue is full a producer waits for room,
// as long as the writer is making progress; while the writer cannot write
// (its thread has ended, no log file can be created, the disk is full) the
// record is dropped and counted at once, so a logging problem never stops
// the threads that log. A record with no output is
// held back in a bounded store whose oldest record makes room for the
// newest, until an assertion brings them out.
#ifndef TOVI_LOGWRITER_RECORDQUEUE_H
#define TOVI_LOGWRITER_RECORDQUEUE_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "logwriter/RecordBatchQueue.h"

class RecordQueue {
public:
  // heldBack: how many records without an output are kept (0: none).
  explicit RecordQueue(unsigned heldBack);
  RecordQueue(const RecordQueue&) = delete;
  RecordQueue& operator=(const RecordQueue&) = delete;

  // Producers. Takes over a block made by recordblock::Acquire; false when
  // its record was dropped (and counted).
  bool Put(ACE_Message_Block* block);
  // Queues the record that tells the writer thread to end, behind the rest.
  void PutEndMarker();

  // The writer thread. Takes every queued record into a chain, waiting up to
  // waitMs for the first; -1 with errno EWOULDBLOCK when none came.
  int TakeAll(ACE_Message_Block*& chain, unsigned waitMs);
  // Gives back the room of records taken and written.
  void Release(std::size_t bytes, std::size_t length) { m_output.release_bytes(bytes, length); }
  // Puts back, in order, what followed the end marker in a chain.
  void PutBack(ACE_Message_Block* chain) { m_output.requeue_head(chain); }
  // The oldest held-back record, or null when there is none.
  ACE_Message_Block* TakeHeldBack();
  static std::size_t Charge(const ACE_Message_Block* block) { return RecordBatchQueue::charge(block); }

  // What producers need to know about the writer thread.
  void SetWriterStalled(bool stalled) { m_writerStalled.store(stalled, std::memory_order_release); }
  void SetWriterGone() { m_writerGone.store(true, std::memory_order_release); }
  // Neither without a file nor ended: worth waiting for.
  bool WriterProgressing() const {
    return !m_writerStalled.load(std::memory_order_acquire) &&
           !m_writerGone.load(std::memory_order_acquire);
  }

  // Records that had to be dropped, counted until a file can say so.
  void CountDropped(uint64_t records) { m_dropped->fetch_add(records, std::memory_order_relaxed); }
  // Before any producer: the count lives in counter from now on (one that
  // outlives the process), starting from what it holds.
  void KeepDropCountIn(std::atomic<uint64_t>* counter) {
    if (counter != nullptr) m_dropped = counter;
  }
  uint64_t TakeDropped();
  uint64_t DroppedSoFar() const { return m_dropped->load(std::memory_order_relaxed); }

  // The stop sequence, once the writer thread has ended. Clear* drop what is
  // left; false when a record could not be taken.
  void DiscardUnusedEndMarker();
  // records counts what was dropped, end markers aside.
  bool ClearOutput(std::size_t& records) { return Clear(m_output, records); }
  bool ClearHeldBack() {
    std::size_t records = 0;
    return Clear(m_heldBack, records);
  }

  std::size_t OutputCount() { return m_output.message_count(); }
  // Nothing queued, and nothing taken that the writer has not released.
  bool Drained() { return m_output.message_bytes() == 0; }
  std::size_t HeldBackCount() { return m_heldBack.message_count(); }

private:
  bool EnqueueOutput(ACE_Message_Block* block);
  static bool Clear(RecordBatchQueue& queue, std::size_t& records);

  RecordBatchQueue m_output;
  RecordBatchQueue m_heldBack;
  const unsigned m_heldBackLimit;
  std::atomic<bool> m_writerGone{false};
  std::atomic<bool> m_writerStalled{false};
  std::atomic<uint64_t> m_ownDropped{0};
  std::atomic<uint64_t>* m_dropped = &m_ownDropped;
};

#endif
