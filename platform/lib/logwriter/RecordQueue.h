// RecordQueue.h - what a writer's producers share besides the record ring:
// the held-back records, the drop count and what producers need to know
// about the writer thread.
//
// A record with no output is held back in a bounded store whose oldest
// record makes room for the newest, until an assertion brings them out.
// Records with an output go through the writer's RecordJournal; while the
// writer cannot write (its thread has ended, no log file can be created,
// the disk is full) a record that finds the ring full is dropped and
// counted at once, so a logging problem never stops the threads that log.
#ifndef TOVI_LOGWRITER_RECORDQUEUE_H
#define TOVI_LOGWRITER_RECORDQUEUE_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include <ace/Condition_Thread_Mutex.h>
#include <ace/Message_Queue.h>
#include <ace/Synch.h>
#include <ace/Thread_Mutex.h>

class RecordQueue {
public:
  // heldBack: how many records without an output are kept (0: none).
  explicit RecordQueue(unsigned heldBack);
  RecordQueue(const RecordQueue&) = delete;
  RecordQueue& operator=(const RecordQueue&) = delete;

  // Producers. Takes over a block made by recordblock::Acquire whose
  // record has no output; false when it could not be kept.
  bool HoldBack(ACE_Message_Block* block);

  // The writer thread. The oldest held-back record, or null when there is
  // none.
  ACE_Message_Block* TakeHeldBack();

  // What producers need to know about the writer thread.
  void SetWriterStalled(bool stalled) { m_writerStalled.store(stalled, std::memory_order_release); }
  void SetWriterGone() { m_writerGone.store(true, std::memory_order_release); }
  // Neither without a file nor ended: worth waiting for.
  bool WriterProgressing() const {
    return !m_writerStalled.load(std::memory_order_acquire) &&
           !m_writerGone.load(std::memory_order_acquire);
  }

  // Records that had to be dropped, counted until a file can say so.
  void CountDropped(uint64_t records) {
    m_dropped.load(std::memory_order_acquire)->fetch_add(records, std::memory_order_relaxed);
  }
  // The count lives in counter from now on (one that outlives the
  // process). A producer that still counts in the old place is not lost:
  // both are taken.
  void KeepDropCountIn(std::atomic<uint64_t>* counter) {
    if (counter != nullptr) m_dropped.store(counter, std::memory_order_release);
  }
  uint64_t TakeDropped();
  uint64_t DroppedSoFar() const;

  // The stop sequence, once the writer thread has ended: drops what is
  // left; false when a record could not be taken.
  bool ClearHeldBack();
  std::size_t HeldBackCount() { return m_heldBack.message_count(); }

private:
  ACE_Message_Queue<ACE_MT_SYNCH> m_heldBack;
  const unsigned m_heldBackLimit;
  std::atomic<bool> m_writerGone{false};
  std::atomic<bool> m_writerStalled{false};
  std::atomic<uint64_t> m_ownDropped{0};
  std::atomic<std::atomic<uint64_t>*> m_dropped{&m_ownDropped};
};

#endif
