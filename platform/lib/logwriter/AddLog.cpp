// AddLog.cpp - the tracing thread's whole share of a log message.
//
// This is the hot path: it takes a recycled block, writes the time, at most
// 255 bytes of the sub-module name, the level prefix and at most 2048 bytes
// of the message into it behind the record, clones the optional ASN.1 value
// and queues the block. It does no I/O and, once the pool is warm, no
// allocation; everything else happens on the writer thread.
#include <atomic>
#include <cstring>

#include <AsnType.h>

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
}  // namespace

void ToviLogWriter::TakeRecordsOnlyFrom(uint32_t thread) {
  g_onlyThread.store(thread, std::memory_order_relaxed);
}

bool ToviLogWriter::AddLog(const std::string& subModule, ToviLogLevel level, const char* text,
                           const AsnType* asn, bool bPrint, bool bLog) {
  if (!m_started || text == nullptr) return false;
  const uint32_t thread = toviport::CurrentThreadId();
  const uint32_t only = g_onlyThread.load(std::memory_order_relaxed);
  if (only != 0 && only != thread) return false;
  // A thread that traces can report its own stack overflow.
  toviport::EnsureAltStack();

  // "<sub-module> <prefix><message>", the message cut at 2048 bytes.
  const std::string_view prefix = logformat::LevelPrefix(level);
  const std::size_t messageLen = strnlen(text, kMaxMessage);
  const std::size_t nameLen =
      subModule.size() < kMaxSubModuleName ? subModule.size() : kMaxSubModuleName;
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
  record->m_bPrint = bPrint || m_options.printAll;
  record->m_bLog = bLog || m_options.logAll;
  record->m_nLevel = level;
  if (asn != nullptr) {
    try {
      record->m_pAsn = asn->Clone();
    } catch (...) {
      recordblock::Release(block);  // the caller's value could not be copied
      return false;
    }
  }
  // In the journal before the queue: once the call returns true, the record
  // outlives the process. Records for the console alone, and those held
  // back, are not journaled.
  const uint64_t entry = record->m_bLog ? m_journal.Append(*record, m_queue) : 0;
  record->m_nJournal = entry;
  if (m_queue.Put(block)) return true;
  m_journal.Drop(entry);
  return false;
}
