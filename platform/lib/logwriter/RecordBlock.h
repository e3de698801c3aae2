// RecordBlock.h - the message blocks that carry held-back records.
//
// A block's data holds a ToviLogRecord followed by its time stamp and text.
// Blocks come in a few fixed sizes and are recycled through a process-wide
// pool with a small cache per thread, so that in steady state a record costs
// its tracing thread no allocation and the writer thread frees nothing that
// another thread's allocator must take back. The store counts each block by
// its size, which is the memory it really holds.
#ifndef TOVI_LOGWRITER_RECORDBLOCK_H
#define TOVI_LOGWRITER_RECORDBLOCK_H

#include <cstddef>

#include <ace/Message_Block.h>

#include "logwriter/ToviLogRecord.h"

namespace recordblock {

// The bytes of blocks the held-back store holds at most (its record count
// is the tighter bound).
constexpr std::size_t kQueueWaterMark = 10240000;
// The pooled block sizes; a record takes the smallest that holds it. A
// larger record gets a block of its own size that is freed after use.
constexpr std::size_t kBlockSizes[] = {256, 1024, 4096};
// The time stamp's room behind the record: 26 characters and a NUL.
constexpr std::size_t kTimeStampSize = 27;

// The bytes a record with a text of textLen characters occupies.
constexpr std::size_t RecordBytes(std::size_t textLen) {
  return sizeof(ToviLogRecord) + kTimeStampSize + textLen + 1;
}

// An empty record (an end marker until it is filled) in a block of at least
// bytes; null when memory is short.
ACE_Message_Block* Acquire(std::size_t bytes);

// Destroys the block's record and returns the block to the pool.
void Release(ACE_Message_Block* block);

inline ToviLogRecord* RecordIn(ACE_Message_Block* block) {
  return reinterpret_cast<ToviLogRecord*>(block->base());
}

}  // namespace recordblock

#endif
