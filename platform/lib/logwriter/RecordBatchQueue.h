// RecordBatchQueue.h - the writer's queue of record blocks, with what the
// writer needs beyond ACE's own operations: a producer's append that costs
// as little as the lock it must take, a batch taken under one lock, and a way
// to put back what followed an end marker.
//
// Taking records one lock at a time would make the writer thread contend
// with every producer for every record; a batch costs one lock however many
// records are waiting. And a producer wakes the writer thread only when it
// really waits on the queue.
#ifndef TOVI_LOGWRITER_RECORDBATCHQUEUE_H
#define TOVI_LOGWRITER_RECORDBATCHQUEUE_H

#include <cerrno>
#include <cstddef>

#include <ace/Condition_Thread_Mutex.h>
#include <ace/Guard_T.h>
#include <ace/Message_Queue.h>
#include <ace/Synch.h>
#include <ace/Thread_Mutex.h>

class RecordBatchQueue : public ACE_Message_Queue<ACE_MT_SYNCH> {
public:
  // The memory a queued block really holds: its data and the two headers
  // that ACE keeps for it. Counting only the data would let a queue of small
  // records hold far more than its water mark says.
  static std::size_t charge(const ACE_Message_Block* block) {
    return block->size() + sizeof(ACE_Message_Block) + sizeof(ACE_Data_Block);
  }

  // Appends one unchained block if there is room: -1 with EWOULDBLOCK when
  // the queue is full, or with ESHUTDOWN when it was deactivated. With a
  // timeout (an absolute time), waits for room until then.
  int enqueue_record(ACE_Message_Block* block, ACE_Time_Value* timeout = nullptr) {
    ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, this->lock_, -1);
    if (this->state_ == ACE_Message_Queue_Base::DEACTIVATED) {
      errno = ESHUTDOWN;
      return -1;
    }
    if (this->cur_bytes_ >= this->high_water_mark_) {
      if (timeout == nullptr) {
        errno = EWOULDBLOCK;
        return -1;
      }
      // ACE's wait sets errno (EWOULDBLOCK on timeout, ESHUTDOWN).
      if (this->wait_not_full_cond(timeout) == -1) return -1;
    }
    ++this->cur_count_;
    this->cur_bytes_ += charge(block);
    this->cur_length_ += block->length();
    block->next(nullptr);
    block->prev(this->tail_);
    if (this->tail_ == nullptr) {
      this->head_ = block;
    } else {
      this->tail_->next(block);
    }
    this->tail_ = block;
    if (m_consumerWaiting) this->not_empty_cond_.signal();
    return static_cast<int>(this->cur_count_);
  }

  // Takes every queued block into a chain linked through next(), waiting
  // for the first until timeout (null: no limit); how many, or -1 with errno
  // as dequeue_head gives it. The lock is held for a moment whatever the
  // count, so producers never queue up behind the writer. The blocks stay
  // counted against the water mark until release_bytes says that the writer
  // is done with them, so what the writer holds is bounded with the queue.
  int dequeue_all(ACE_Message_Block*& first, ACE_Time_Value* timeout) {
    ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, this->lock_, -1);
    if (this->state_ == ACE_Message_Queue_Base::DEACTIVATED) {
      errno = ESHUTDOWN;
      return -1;
    }
    m_consumerWaiting = true;
    const int waited = this->wait_not_empty_cond(timeout);
    m_consumerWaiting = false;
    if (waited == -1) return -1;
    first = this->head_;
    const int taken = static_cast<int>(this->cur_count_);
    this->head_ = this->tail_ = nullptr;
    this->cur_count_ = 0;
    return taken;
  }

  // Gives back the water-mark room of blocks that dequeue_all handed out.
  void release_bytes(std::size_t bytes, std::size_t length) {
    ACE_GUARD(ACE_Thread_Mutex, guard, this->lock_);
    this->cur_bytes_ -= bytes;
    this->cur_length_ -= length;
    if (this->cur_bytes_ <= this->low_water_mark_) this->not_full_cond_.broadcast();
  }

  // Puts a chain from dequeue_all back at the head, in order, whether or not
  // the queue is full: its bytes are still counted.
  int requeue_head(ACE_Message_Block* chain) {
    ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, this->lock_, -1);
    ACE_Message_Block* last = chain;
    std::size_t count = 1;
    for (; last->next() != nullptr; last = last->next()) {
      last->next()->prev(last);
      ++count;
    }
    chain->prev(nullptr);
    last->next(this->head_);
    if (this->head_ != nullptr) {
      this->head_->prev(last);
    } else {
      this->tail_ = last;
    }
    this->head_ = chain;
    this->cur_count_ += count;
    this->not_empty_cond_.signal();
    return static_cast<int>(this->cur_count_);
  }

private:
  // True while the writer thread waits in dequeue_all; read and written
  // under the queue's lock.
  bool m_consumerWaiting = false;
};

#endif
