// ToviLogRecord.h - one message on its way from a tracing thread to a writer.
//
// Everything about the message that must be fixed at the moment of the call
// (time, thread, text, a private copy of the ASN.1 value) lives here, so the
// writer thread never looks back at the caller. The record stands at the
// start of its message block's data, with its time stamp and its text right
// behind it: one block carries a whole message, and blocks are recycled, so
// a message costs the tracing thread no allocation once the pool is warm.
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

  // A record with no time, text or value tells the writer thread to end.
  bool IsEndMarker() const { return m_pTime == nullptr && m_pText == nullptr && m_pAsn == nullptr; }
  bool HasData() const { return m_pTime != nullptr && (m_pText != nullptr || m_pAsn != nullptr); }

  char* m_pTime = nullptr;  // "YYYY-MM-DD HH:MM:SS.uuuuuu", inside the block
  uint32_t m_nThreadId = 0;
  ToviLogLevel m_nLevel = LEVEL_INFO;
  char* m_pText = nullptr;  // NUL-terminated, inside the block
  uint32_t m_nTextLen = 0;
  // The sub-module name's share at the start of the text.
  uint32_t m_nSubModuleLen = 0;
  AsnType* m_pAsn = nullptr;
  bool m_bPrint = false;
  bool m_bLog = false;
  // Its entry in the writer's journal (RecordJournal::Append), 0 for none.
  uint64_t m_nJournal = 0;
};

#endif
