// RecordBatchQueue.h - the writer's queue of record blocks, with the two
// operations the writer thread needs beyond ACE's own: take a whole batch
// under one lock, and put back what followed an end marker.
//
// Taking records one lock at a time would make the writer thread contend
// with every producer for every record; a batch costs one lock however many
// records are waiting.
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
  // Takes the oldest blocks into a chain linked through next(): at least one,
  // then more while their data stays within maxBytes. Waits for the first
  // until timeout (null: no limit). -1 with errno as dequeue_head gives it.
  int dequeue_batch(ACE_Message_Block*& first, std::size_t maxBytes, ACE_Time_Value* timeout) {
    ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, this->lock_, -1);
    if (this->state_ == ACE_Message_Queue_Base::DEACTIVATED) {
      errno = ESHUTDOWN;
      return -1;
    }
    if (this->wait_not_empty_cond(timeout) == -1) return -1;
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
};

#endif
