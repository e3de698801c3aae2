// AddLog.cpp - the tracing thread's whole share of a log message.
//
// This is the hot path: it reads the clock, reserves an entry in the
// writer's ring, copies at most 255 bytes of the sub-module name and the
// message (at most 2048 bytes of text, or a Printf call's captured format
// and arguments) into it, clones the optional ASN.1 value and publishes the
// entry. No lock, no allocation, no I/O, no formatting: the time stamp, the
// level prefix and a capture's text are made on the writer thread. A record
// with no output is the exception: it is held back, formatted, in the
// bounded store an assertion empties.
#include <atomic>
#include <cstring>

#include <AsnType.h>

#include "logwriter/DeferredFormat.h"
#include "logwriter/LogFormat.h"
#include "logwriter/RecordBlock.h"
#include "logwriter/RecordJournal.h"
#include "logwriter/TimeStamp.h"
#include "logwriter/ToviLogRecord.h"
#include "logwriter/ToviLogWriter.h"
#include "port/FatalSignals.h"
#include "port/ToviPort.h"

namespace {
// 0, or the one thread whose records every writer still takes.
std::atomic<uint32_t> g_onlyThread{0};
constexpr std::size_t kMaxMessage = 2048;
// Longer names are cut: a record's size, and with it what a stalled writer
// holds, must not depend on what a caller passes as a name.
constexpr std::size_t kMaxSubModuleName = 255;

std::size_t NameLength(const std::string& subModule) {
  return subModule.size() < kMaxSubModuleName ? subModule.size() : kMaxSubModuleName;
}
}  // namespace

void ToviLogWriter::TakeRecordsOnlyFrom(uint32_t thread) {
  g_onlyThread.store(thread, std::memory_order_relaxed);
}

bool ToviLogWriter::Admits(uint32_t thread) const {
  if (!m_started) return false;
  const uint32_t only = g_onlyThread.load(std::memory_order_relaxed);
  if (only != 0 && only != thread) return false;
  // A thread that traces can report its own stack overflow.
  toviport::EnsureAltStack();
  return true;
}

bool ToviLogWriter::AddLog(const std::string& subModule, ToviLogLevel level, const char* text,
                           const AsnType* asn, bool bPrint, bool bLog) {
  if (text == nullptr) return false;
  const uint32_t thread = toviport::CurrentThreadId();
  if (!Admits(thread)) return false;
  bPrint = bPrint || m_options.printAll;
  bLog = bLog || m_options.logAll;
  const std::size_t messageLen = strnlen(text, kMaxMessage);
  if (!bPrint && !bLog) return HoldBack(subModule, level, text, messageLen, asn, thread);
  const uint16_t flags = (bLog ? RecordJournal::kToFile : 0) | (bPrint ? RecordJournal::kToConsole : 0);
  return Enqueue(subModule, level, flags, text, messageLen, asn, thread);
}

bool ToviLogWriter::AddCapture(const std::string& subModule, ToviLogLevel level,
                               const char* capture, std::size_t size, bool bPrint, bool bLog) {
  const uint32_t thread = toviport::CurrentThreadId();
  if (!Admits(thread)) return false;
  bPrint = bPrint || m_options.printAll;
  bLog = bLog || m_options.logAll;
  if (!bPrint && !bLog) {
    char text[deferred::kMaxText + 1];
    const std::size_t length = deferred::Render(capture, size, text);
    return length > 0 && HoldBack(subModule, level, text, length, nullptr, thread);
  }
  const uint16_t flags = RecordJournal::kDeferred | (bLog ? RecordJournal::kToFile : 0) |
                         (bPrint ? RecordJournal::kToConsole : 0);
  return Enqueue(subModule, level, flags, capture, size, nullptr, thread);
}

bool ToviLogWriter::Enqueue(const std::string& subModule, ToviLogLevel level, uint16_t flags,
                            const char* message, std::size_t messageLen, const AsnType* asn,
                            uint32_t thread) {
  AsnType* clone = nullptr;
  if (asn != nullptr) {
    try {
      clone = asn->Clone();
    } catch (...) {
      return false;  // the caller's value could not be copied
    }
  }
  int64_t seconds = 0;
  long microseconds = 0;
  toviport::CurrentTimeOfDay(seconds, microseconds);
  const std::size_t nameLen = NameLength(subModule);
  RecordJournal::Entry* entry = m_journal.Reserve(nameLen + messageLen, m_queue);
  if (entry == nullptr) {
    delete clone;
    m_queue.CountDropped(1);
    return false;
  }
  entry->thread = thread;
  entry->level = level;
  entry->flags = flags;
  entry->nameLength = static_cast<uint16_t>(nameLen);
  entry->seconds = seconds;
  entry->microseconds = static_cast<int32_t>(microseconds);
  entry->messageLength = static_cast<uint32_t>(messageLen);
  entry->asn = clone;
  char* payload = entry->Payload();
  std::memcpy(payload, subModule.data(), nameLen);
  std::memcpy(payload + nameLen, message, messageLen);
  RecordJournal::Publish(entry);
  WakeWriter();
  return true;
}

// A record nobody asked to see, kept formatted for an assertion to bring
// out: "<sub-module> <prefix><message>" behind its record in one block.
bool ToviLogWriter::HoldBack(const std::string& subModule, ToviLogLevel level, const char* text,
                             std::size_t messageLen, const AsnType* asn, uint32_t thread) {
  const std::string_view prefix = logformat::LevelPrefix(level);
  const std::size_t nameLen = NameLength(subModule);
  const std::size_t textLen = nameLen + 1 + prefix.size() + messageLen;
  const std::size_t bytes = recordblock::RecordBytes(textLen);
  ACE_Message_Block* block = recordblock::Acquire(bytes);
  if (block == nullptr) return false;

  char* const base = block->base();
  char* const stamp = base + sizeof(ToviLogRecord);
  char* const body = stamp + recordblock::kTimeStampSize;
  timestamp::FormatNow(stamp);
  char* p = body;
  std::memcpy(p, subModule.data(), nameLen);
  p += nameLen;
  *p++ = ' ';
  std::memcpy(p, prefix.data(), prefix.size());
  p += prefix.size();
  std::memcpy(p, text, messageLen);
  p[messageLen] = '\0';
  block->wr_ptr(bytes);

  ToviLogRecord* record = reinterpret_cast<ToviLogRecord*>(base);
  record->m_pTime = stamp;
  record->m_pText = body;
  record->m_nTextLen = static_cast<uint32_t>(textLen);
  record->m_nSubModuleLen = static_cast<uint32_t>(nameLen);
  record->m_nThreadId = thread;
  record->m_nLevel = level;
  if (asn != nullptr) {
    try {
      record->m_pAsn = asn->Clone();
    } catch (...) {
      recordblock::Release(block);  // the caller's value could not be copied
      return false;
    }
  }
  return m_queue.HoldBack(block);
}

void ToviLogWriter::WakeWriter() {
  // The reservation's compare-and-swap and this load are sequentially
  // consistent, as are the writer's store of the flag and its load of the
  // head before it sleeps: either the writer sees the reservation and does
  // not sleep, or this sees the writer asleep and wakes it.
  if (!m_writerAsleep.load(std::memory_order_seq_cst)) return;
  if (m_writerAsleep.exchange(false, std::memory_order_acq_rel)) m_wake.release();
}
