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
  // Appends one unchained block if there is room: -1 with EWOULDBLOCK when
  // the queue is full (then ACE's waiting enqueue_tail takes over), or with
  // ESHUTDOWN when it was deactivated.
  int enqueue_record(ACE_Message_Block* block) {
    ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, this->lock_, -1);
    if (this->state_ == ACE_Message_Queue_Base::DEACTIVATED) {
      errno = ESHUTDOWN;
      return -1;
    }
    if (this->cur_bytes_ >= this->high_water_mark_) {
      errno = EWOULDBLOCK;
      return -1;
    }
    ++this->cur_count_;
    this->cur_bytes_ += block->size();
    this->cur_length_ += block->length();
    block->next(nullptr);
    block->prev(this->tail_);
    if (this->tail_ == nullptr) {
      this->head_ = block;
    } else {
      this->tail_->next(block);
    }
    this->tail_ = block;
    if (consumerWaiting_) this->not_empty_cond_.signal();
    return static_cast<int>(this->cur_count_);
  }

  // Takes the oldest blocks into a chain linked through next(): at least one,
  // then more while their data stays within maxBytes. Waits for the first
  // until timeout (null: no limit). -1 with errno as dequeue_head gives it.
  int dequeue_batch(ACE_Message_Block*& first, std::size_t maxBytes, ACE_Time_Value* timeout) {
    ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, this->lock_, -1);
    if (this->state_ == ACE_Message_Queue_Base::DEACTIVATED) {
      errno = ESHUTDOWN;
      return -1;
    }
    consumerWaiting_ = true;
    const int waited = this->wait_not_empty_cond(timeout);
    consumerWaiting_ = false;
    if (waited == -1) return -1;
    first = nullptr;
    ACE_Message_Block* last = nullptr;
    std::size_t bytes = 0;
    int taken = 0;
    while (this->head_ != nullptr && (taken == 0 || bytes + this->head_->length() <= maxBytes)) {
      ACE_Message_Block* block = nullptr;
      if (this->dequeue_head_i(block) == -1) break;
      bytes += block->length();
      if (last == nullptr) {
        first = block;
      } else {
        last->next(block);
      }
      last = block;
      ++taken;
    }
    return taken;
  }

  // Puts a chain back at the head, in order, whether or not the queue is
  // full: these blocks were counted in it already.
  int requeue_head(ACE_Message_Block* chain) {
    ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, this->lock_, -1);
    return this->enqueue_head_i(chain);
  }

private:
  // True while the writer thread waits in dequeue_batch; read and written
  // under the queue's lock.
  bool consumerWaiting_ = false;
};

#endif
