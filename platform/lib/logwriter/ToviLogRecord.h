// ToviLogRecord.h - one message on its way from a tracing thread to a writer.
//
// Everything about the message that must be fixed at the moment of the call
// (time, thread, text, a private copy of the ASN.1 value) lives here, so the
// writer thread never looks back at the caller. The record owns its buffers.
#ifndef TOVI_LOGWRITER_TOVILOGRECORD_H
#define TOVI_LOGWRITER_TOVILOGRECORD_H

#include <cstdint>

#include "ToviDebugMgr.h"

class AsnType;

class ToviLogRecord {
public:
  ToviLogRecord() = default;
  ~ToviLogRecord();
  ToviLogRecord(const ToviLogRecord&) = delete;
  ToviLogRecord& operator=(const ToviLogRecord&) = delete;

  // A record with no time, text or value tells the writer thread to end.
  bool IsEndMarker() const { return m_pTime == nullptr && m_pText == nullptr && m_pAsn == nullptr; }
  bool HasData() const { return m_pTime != nullptr && (m_pText != nullptr || m_pAsn != nullptr); }

  char* m_pTime = nullptr;  // "YYYY-MM-DD HH:MM:SS.uuuuuu", 40-byte buffer
  uint32_t m_nThreadId = 0;
  ToviLogLevel m_nLevel = LEVEL_INFO;
  char* m_pText = nullptr;
  AsnType* m_pAsn = nullptr;
  bool m_bPrint = false;
  bool m_bLog = false;
};

#endif
