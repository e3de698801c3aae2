// ToviLogRecord.h - one message as the writer thread hands it to its sinks.
//
// The writer composes one from each ring entry (its time stamp and text in
// the writer's own buffers), and a held-back record is one at the start of
// its recycled message block, with its time stamp and text right behind it.
// Either way the record carries everything fixed at the moment of the call
// (time, thread, text, a private copy of the ASN.1 value), so the writer
// never looks back at the caller.
#ifndef TOVI_LOGWRITER_TOVILOGRECORD_H
#define TOVI_LOGWRITER_TOVILOGRECORD_H

#include <cstdint>

#include "ToviLogLevel.h"

class AsnType;

class ToviLogRecord {
public:
  ToviLogRecord() = default;
  // Frees the caller's value clone through its virtual destructor; the time
  // and text belong to the block.
  ~ToviLogRecord();
  ToviLogRecord(const ToviLogRecord&) = delete;
  ToviLogRecord& operator=(const ToviLogRecord&) = delete;

  char* m_pTime = nullptr;  // "YYYY-MM-DD HH:MM:SS.uuuuuu"
  uint32_t m_nThreadId = 0;
  ToviLogLevel m_nLevel = LEVEL_INFO;
  char* m_pText = nullptr;  // NUL-terminated
  uint32_t m_nTextLen = 0;
  // The sub-module name's share at the start of the text.
  uint32_t m_nSubModuleLen = 0;
  AsnType* m_pAsn = nullptr;
  bool m_bPrint = false;
  bool m_bLog = false;
  // Its entry in the writer's journal (RecordJournal::HandleOf), 0 for none.
  uint64_t m_nJournal = 0;
};

#endif
