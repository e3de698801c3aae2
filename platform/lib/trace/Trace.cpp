// Trace.cpp - the road of one trace call, from a product thread to a queued
// record.
//
// The tests come in a fixed order: the gate (the manager is still the
// published one, see CallGate.h), initialised, engine, trace-off, writer,
// arguments. Then the sub-module's masks may widen (never narrow) the
// caller's console and file demands, and the writer's AddLog builds and
// queues the record. Nothing here touches a file or the console; the lookup
// takes no lock, and the only locks are the queue's and, for application
// writers, the writer table's.
//
// Printf traces with no demands of its own, so the sub-module's registry
// entry alone decides where its text goes. The call only copies its format
// and arguments (deferred::Capture) and the writer thread formats them; a
// call whose bytes could come out differently later, or that goes to an
// engine, is formatted here into a fixed stack buffer. Either way a text
// that does not fit is refused whole rather than cut.
#include <bitset>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "ToviDebugEngine.h"
#include "ToviDebugMgr.h"
#include "ToviInterString.h"
#include "debugmgr/CallGate.h"
#include "debugmgr/EngineSlot.h"
#include "debugmgr/PrintfDefaults.h"
#include "debugmgr/SubModuleInfo.h"
#include "debugmgr/SubModuleRegistry.h"
#include "debugmgr/WriterTable.h"
#include "logwriter/DeferredFormat.h"
#include "logwriter/ToviLogWriter.h"
#include "port/ToviPort.h"

namespace {
constexpr std::size_t kFormatBufSize = 2048;
// A capture holds the format and the arguments, strings included, of a
// text that fits in kFormatBufSize: more than that is formatted at once.
constexpr std::size_t kCaptureBufSize = 4096;

bool ValidLevel(ToviLogLevel level) { return level >= 0 && level <= 31; }

// Adds the outputs of the sub-module (or of "debug" when it is not
// registered) to the caller's, when the sub-module logs this level.
void WidenOutputs(const SubModuleRegistry& registry, const std::string& subModule,
                  ToviLogLevel level, bool& bPrint, bool& bLog) {
  if (bPrint && bLog) return;
  const SubModuleInfo* entry = registry.FindOrDefault(subModule);
  if (entry == nullptr) return;
  std::bitset<32> levels;
  std::bitset<32> outputs;
  entry->Load(levels, outputs);
  if (!levels.test(static_cast<std::size_t>(level))) return;
  bPrint = bPrint || outputs.test(OUTPUT_CONSOLE);
  bLog = bLog || outputs.test(OUTPUT_FILE);
}

// Formats into a stack buffer and traces the text with no demands of its
// own; false, with nothing traced, when the text is empty, does not fit in
// 2047 characters or cannot be formatted. Kept out of line: its buffer
// should not weigh on the common road, which defers the formatting.
[[gnu::noinline]] bool FormatAndTrace(ToviDebugMgr& manager, const std::string& subModule,
                                      ToviLogLevel level, const char* format, va_list args) {
  char text[kFormatBufSize];
  const int n = std::vsnprintf(text, sizeof text, format, args);
  if (n < 1 || static_cast<std::size_t>(n) >= kFormatBufSize) return false;
  manager.Trace(subModule, level, text, nullptr, false, false);
  return true;
}
}  // namespace

bool ToviDebugMgr::TraceFormatted(const std::string& subModule, ToviLogLevel level,
                                  const char* format, va_list args) {
  if (format == nullptr) return false;
  ToviLogWriter* writer = nullptr;
  if (m_pEngine->Current() == nullptr && !m_bTraceOff.load(std::memory_order_acquire) &&
      ValidLevel(level)) {
    writer = m_pWriters->Main();
  }
  if (writer != nullptr) {
    char capture[kCaptureBufSize];
    va_list copy;
    va_copy(copy, args);
    const std::size_t size = deferred::Capture(format, copy, capture, sizeof capture);
    va_end(copy);
    if (size > 0) {
      bool bPrint = false;
      bool bLog = false;
      WidenOutputs(*m_pRegistry, subModule, level, bPrint, bLog);
      writer->AddCapture(subModule, level, capture, size, bPrint, bLog);
      return true;
    }
  }
  return FormatAndTrace(*this, subModule, level, format, args);
}

bool ToviDebugMgr::Trace(const std::string& subModule, ToviLogLevel level, const char* text,
                         const AsnType* asn, bool bPrint, bool bLog) {
  const callgate::Pass pass(this);
  if (!pass || !m_bInit.load(std::memory_order_acquire)) return false;
  // Read after passing the gate, in the order its freers rely on.
  if (ToviDebugEngine* engine = m_pEngine->Current()) {
    return engine->Trace(subModule, level, text, asn, bPrint, bLog);
  }
  if (m_bTraceOff.load(std::memory_order_acquire)) return false;
  ToviLogWriter* writer = m_pWriters->Main();
  if (writer == nullptr) return false;
  if (text == nullptr || !ValidLevel(level)) return false;

  WidenOutputs(*m_pRegistry, subModule, level, bPrint, bLog);
  return writer->AddLog(subModule, level, text, asn, bPrint, bLog);
}

bool ToviDebugMgr::AppTrace(const std::string& subModule, ToviLogLevel level, const char* text,
                            const AsnType* asn, bool bPrint, bool bLog,
                            const std::string& appName) {
  const callgate::Pass pass(this);
  if (!pass || !m_bInit.load(std::memory_order_acquire)) return false;
  if (ToviDebugEngine* engine = m_pEngine->Current()) {
    return engine->AppTrace(subModule, level, text, asn, bPrint, bLog, appName);
  }
  if (m_bTraceOff.load(std::memory_order_acquire)) return false;
  if (text == nullptr || !ValidLevel(level)) return false;
  ToviLogWriter* writer = m_pWriters->GetOrCreate(appName, subModule);
  if (writer == nullptr) return false;

  WidenOutputs(*m_pRegistry, subModule, level, bPrint, bLog);
  return writer->AddLog(subModule, level, text, asn, bPrint, bLog);
}

void ToviDebugMgr::Printf(ToviLogLevel level, const char* format, ...) {
  const callgate::Pass pass(this);
  if (!pass || !m_bInit.load(std::memory_order_acquire)) return;
  va_list args;
  va_start(args, format);
  const bool traced = TraceFormatted(m_pDefaults->SubModule(), level, format, args);
  va_end(args);
  if (!traced) toviport::ConsolePrintf("Printf, vsnprintf failed. errno:%d\n", errno);
}

void ToviDebugMgr::Printf(ToviLogLevel level, const ToviInterString& subModule,
                          const char* format, ...) {
  const callgate::Pass pass(this);
  if (!pass || !m_bInit.load(std::memory_order_acquire)) return;
  va_list args;
  va_start(args, format);
  TraceFormatted(subModule.str(), level, format, args);
  va_end(args);
}

void ToviDebugMgr::Printf(const char* format, ...) {
  const callgate::Pass pass(this);
  if (!pass || !m_bInit.load(std::memory_order_acquire)) return;
  va_list args;
  va_start(args, format);
  TraceFormatted(m_pDefaults->SubModule(), m_pDefaults->Level(), format, args);
  va_end(args);
}
