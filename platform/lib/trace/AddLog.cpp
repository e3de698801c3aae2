// AddLog.cpp - the tracing thread's whole share of a log message.
//
// This is the hot path: it takes the time, copies at most 2048 bytes of the
// message into one heap text behind the sub-module name and level prefix,
// clones the optional ASN.1 value and queues the record. It does no I/O;
// everything else happens on the writer thread.
#include <cstring>
#include <new>

#include <ace/ACE.h>

#include <AsnType.h>

#include "logwriter/ToviLogRecord.h"
#include "logwriter/ToviLogWriter.h"
#include "port/ToviPort.h"

namespace {
constexpr std::size_t kMaxMessage = 2048;
constexpr std::size_t kTimeBufSize = 40;

const char* LevelPrefix(ToviLogLevel level) {
  switch (level) {
    case LEVEL_ASSERT: return "ASSERT: ";
    case LEVEL_ERROR: return "ERROR: ";
    case LEVEL_WARN: return "WARN: ";
    case LEVEL_INFO: return "INFO: ";
    default: return "";
  }
}
}  // namespace

bool ToviLogWriter::AddLog(const std::string& subModule, ToviLogLevel level, const char* text,
                           const AsnType* asn, bool bPrint, bool bLog) {
  if (!m_bStarted || text == nullptr) return false;

  char* stamp = new (std::nothrow) char[kTimeBufSize];
  if (stamp == nullptr) return false;
  ACE::timestamp(stamp, kTimeBufSize, false);

  // "<sub-module> <prefix><message>", the message cut at 2048 bytes.
  const char* prefix = LevelPrefix(level);
  const std::size_t prefixLen = std::strlen(prefix);
  const std::size_t messageLen = strnlen(text, kMaxMessage);
  const std::size_t nameLen = subModule.size();
  char* body = new (std::nothrow) char[nameLen + 1 + prefixLen + messageLen + 1];
  if (body == nullptr) {
    delete[] stamp;
    return false;
  }
  char* p = body;
  std::memcpy(p, subModule.data(), nameLen);
  p += nameLen;
  *p++ = ' ';
  std::memcpy(p, prefix, prefixLen);
  p += prefixLen;
  std::memcpy(p, text, messageLen);
  p[messageLen] = '\0';

  ToviLogRecord* record = new (std::nothrow) ToviLogRecord();
  if (record == nullptr) {
    delete[] stamp;
    delete[] body;
    return false;
  }
  record->m_pTime = stamp;
  record->m_pText = body;
  record->m_nThreadId = toviport::CurrentThreadId();
  record->m_bPrint = bPrint || m_bAllPrint;
  record->m_bLog = bLog || m_bAllLog;
  record->m_nLevel = level;
  if (asn != nullptr) {
    try {
      record->m_pAsn = asn->Clone();
    } catch (...) {
      delete record;  // the caller's value could not be copied
      return false;
    }
  }
  return PutRecord(record);
}
