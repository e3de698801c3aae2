// RecordWriter.cpp - turning one record into lines for the file and the
// console, and bringing out the held-back records before an assertion.
//
// The lines go into the writer's pending batches; the writer thread hands
// each batch to the kernel in one piece.
//
// The date line goes into a file whenever the day of the month differs from
// that of the last record that any writer of the process handled; the marker
// is shared by all writers and kept in one atomic.
#include <atomic>
#include <cstring>
#include <string>

#include "logwriter/FormatAsnTrace.h"
#include "logwriter/RecordBlock.h"
#include "logwriter/RecordSink.h"
#include "logwriter/TimeStamp.h"
#include "logwriter/ToviLogRecord.h"
#include "logwriter/ToviLogWriter.h"

namespace {
// The two day-of-month characters of the last record handled, packed into
// one value so that both are read and replaced together. 0: none yet.
std::atomic<uint16_t> g_lastDay{0};

constexpr std::size_t kDayOffset = 8;
constexpr std::size_t kTimeOfDayOffset = 11;
constexpr std::size_t kTimeOfDayLength = timestamp::kLength - kTimeOfDayOffset;

uint16_t DayOf(const char* stamp) {
  return static_cast<uint16_t>(static_cast<unsigned char>(stamp[kDayOffset]) |
                               (static_cast<unsigned char>(stamp[kDayOffset + 1]) << 8));
}

// "<time of day>.T<thread id in hex> " into out, which has room for 32
// characters; returns the length.
std::size_t FormatHead(const ToviLogRecord& record, char* out) {
  std::memcpy(out, record.m_pTime + kTimeOfDayOffset, kTimeOfDayLength);
  char* p = out + kTimeOfDayLength;
  *p++ = '.';
  *p++ = 'T';
  char digits[8];
  int n = 0;
  uint32_t id = record.m_nThreadId;
  do {
    digits[n++] = "0123456789abcdef"[id & 0xF];
    id >>= 4;
  } while (id != 0);
  while (n > 0) *p++ = digits[--n];
  *p++ = ' ';
  return static_cast<std::size_t>(p - out);
}

}  // namespace

bool ToviLogWriter::WriteRecord(ToviLogRecord* record, bool fromDiscardQueue) {
  if (record == nullptr || record->m_pTime == nullptr) return false;
  if (m_Files.HasFailedWrite()) m_Files.RecoverFromFailedWrite();
  if (!m_Files.IsOpen()) {
    // Only after a stop during a wait for a file: the record is counted.
    if (record->m_bLog) m_Queue.CountDropped(1);
    return false;
  }
  m_Files.ReportDroppedRecords();
  // Held-back records come out before the assertion that explains them.
  if (record->m_nLevel == LEVEL_ASSERT && !fromDiscardQueue) FlushDiscardQueue();

  char head[32];
  const std::size_t headLen = FormatHead(*record, head);
  const uint16_t day = DayOf(record->m_pTime);
  // The record's lines after the head: its text, a line end unless the text
  // has one, then the rendered ASN.1 value.
  const char* text = record->m_pText != nullptr ? record->m_pText : "";
  const std::size_t textLen = record->m_pText != nullptr ? record->m_nTextLen : 0;
  const bool needsLineEnd = textLen > 0 && text[textLen - 1] != '\n';
  std::string asn;
  if (record->m_pAsn != nullptr) {
    try {
      FormatAsnTrace(record->m_pAsn, asn);
      asn += '\n';
    } catch (...) {
      asn.clear();  // no memory for the rendering: the record goes out without it
    }
  }

  if (record->m_bLog) {
    if (day != g_lastDay.load(std::memory_order_relaxed)) {
      char line[64] = "Current date&time:";
      std::memcpy(line + 18, record->m_pTime, timestamp::kLength);
      std::memcpy(line + 18 + timestamp::kLength, "\n", 2);
      m_Files.WriteText(line);
    }
    m_Files.Write(head, headLen);
    m_Files.Write(text, textLen);
    if (needsLineEnd) m_Files.Write("\n", 1);
    m_Files.Write(asn.data(), asn.size());
    m_Files.CountRecord();
    if (RecordSink* sink = m_forwardSink.load(std::memory_order_acquire)) {
      sink->Add(SinkRecord{*record, head, headLen, text, textLen, needsLineEnd, asn});
    }
    if (!m_Files.AfterRecord()) return false;
  }
  g_lastDay.store(day, std::memory_order_relaxed);

  if (record->m_bPrint && !m_Console.Add(head, headLen, text, textLen, needsLineEnd, asn)) {
    return false;
  }
  return true;
}

void ToviLogWriter::FlushDiscardQueue() {
  while (ACE_Message_Block* block = m_Queue.TakeHeldBack()) {
    ToviLogRecord* record = recordblock::RecordIn(block);
    record->m_bLog = true;
    record->m_bPrint = true;
    WriteRecord(record, true);
    recordblock::Release(block);
  }
}
