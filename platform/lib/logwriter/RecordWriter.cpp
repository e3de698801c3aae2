// RecordWriter.cpp - turning one record into lines in the file and on the
// console, and rolling the file over when it has grown past its limit.
//
// The date line goes into a file whenever the day of the month differs from
// that of the last record that any writer of the process handled; the marker
// is shared by all writers and kept in one atomic.
#include <atomic>
#include <cstring>
#include <string>

#include <ace/OS_NS_stdio.h>

#include "logwriter/ToviLogRecord.h"
#include "logwriter/ToviLogWriter.h"

namespace {
// The two day-of-month characters of the last record handled, packed into
// one value so that both are read and replaced together. 0: none yet.
std::atomic<uint16_t> g_lastDay{0};

constexpr std::size_t kDayOffset = 8;
constexpr std::size_t kTimeOfDayOffset = 11;

uint16_t DayOf(const char* stamp) {
  return static_cast<uint16_t>(static_cast<unsigned char>(stamp[kDayOffset]) |
                               (static_cast<unsigned char>(stamp[kDayOffset + 1]) << 8));
}

// Time stamps come from ACE::timestamp and always have 26 characters; a
// shorter one (never made by the library) is used whole rather than over-read.
const char* TimeOfDay(const char* stamp) {
  return std::strlen(stamp) > kTimeOfDayOffset ? stamp + kTimeOfDayOffset : stamp;
}
}  // namespace

bool ToviLogWriter::RollOver() {
  CloseLogFile();
  MaintainArchives();
  return CreateLogFileUntilStopped();
}

bool ToviLogWriter::WriteRecord(ToviLogRecord* record, bool fromDiscardQueue) {
  if (m_pFile == nullptr || record == nullptr || record->m_pTime == nullptr) return false;
  ReportDroppedRecords();
  // Held-back records come out before the assertion that explains them.
  if (record->m_nLevel == LEVEL_ASSERT && !fromDiscardQueue) FlushDiscardQueue();

  const char* text = record->m_pText != nullptr ? record->m_pText : "";
  const std::size_t textLen = std::strlen(text);
  const bool needsLineEnd = textLen > 0 && text[textLen - 1] != '\n';
  char head[512];
  ACE_OS::snprintf(head, sizeof head, "%s.T%lx ", TimeOfDay(record->m_pTime),
                static_cast<unsigned long>(record->m_nThreadId));
  const uint16_t day = DayOf(record->m_pTime);

  if (record->m_bLog) {
    if (day != g_lastDay.load(std::memory_order_relaxed)) {
      char line[512];
      ACE_OS::snprintf(line, sizeof line, "Current date&time:%s\n", record->m_pTime);
      WriteString(line);
    }
    WriteString(head);
    WriteString(text);
    if (needsLineEnd) WriteString("\n");
    if (record->m_pAsn != nullptr) {
      std::string asn;
      FormatAsnTrace(record->m_pAsn, asn);
      WriteString(asn.c_str());
      WriteString("\n");
    }
    m_pFile->flush();
    if (m_nFileBytes > static_cast<int64_t>(m_nEachFileMaxSize) && !RollOver()) return false;
  }
  g_lastDay.store(day, std::memory_order_relaxed);

  if (record->m_bPrint) {
    // One piece per record, so that records of different writers may
    // interleave on the console but never split each other.
    std::string out(head);
    out.append(text, textLen);
    if (needsLineEnd) out += '\n';
    if (record->m_pAsn != nullptr) {
      FormatAsnTrace(record->m_pAsn, out);
      out += '\n';
    }
    ACE_OS::printf("%s", out.c_str());
  }
  return true;
}
