// RecordBlock.h - a record travels through a queue inside a message block
// that points at it without owning it. Whoever takes a block off a queue
// unwraps it, which frees the block and leaves them owning the record.
#ifndef TOVI_LOGWRITER_RECORDBLOCK_H
#define TOVI_LOGWRITER_RECORDBLOCK_H

#include <new>

#include <ace/Message_Block.h>

#include "logwriter/ToviLogRecord.h"

inline ACE_Message_Block* WrapRecord(ToviLogRecord* record) {
  return new (std::nothrow)
      ACE_Message_Block(reinterpret_cast<const char*>(record), sizeof(ToviLogRecord), 0);
}

inline ToviLogRecord* UnwrapRecord(ACE_Message_Block* block) {
  ToviLogRecord* record = reinterpret_cast<ToviLogRecord*>(block->base());
  delete block;
  return record;
}

#endif
