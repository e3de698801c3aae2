// Printf.cpp - printf-style tracing. The text is formatted into a fixed
// stack buffer and traced with no demands of its own, so the sub-module's
// registry entry alone decides where it goes. A text that does not fit is
// refused whole rather than cut.
#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "ToviDebugMgr.h"
#include "ToviInterString.h"
#include "debugmgr/CallGate.h"
#include "port/ToviPort.h"

namespace {
constexpr std::size_t kFormatBufSize = 2048;

// Formats into a stack buffer and traces the text with no demands of its
// own; false, with nothing traced, when the text is empty, does not fit in
// 2047 characters or cannot be formatted.
bool TraceFormatted(ToviDebugMgr& manager, const std::string& subModule, ToviLogLevel level,
                    const char* format, va_list args) {
  char text[kFormatBufSize];
  if (format == nullptr) return false;
  const int n = std::vsnprintf(text, sizeof text, format, args);
  if (n < 1 || static_cast<std::size_t>(n) >= kFormatBufSize) return false;
  manager.Trace(subModule, level, text, nullptr, false, false);
  return true;
}
}  // namespace

void ToviDebugMgr::Printf(ToviLogLevel level, const char* format, ...) {
  const callgate::Pass pass(this);
  if (!pass || !m_bInit.load(std::memory_order_acquire)) return;
  va_list args;
  va_start(args, format);
  const bool traced = TraceFormatted(*this, DefSubModuleName(), level, format, args);
  va_end(args);
  if (!traced) toviport::ConsolePrintf("Printf, vsnprintf failed. errno:%d\n", errno);
}

void ToviDebugMgr::Printf(ToviLogLevel level, const ToviInterString& subModule,
                          const char* format, ...) {
  const callgate::Pass pass(this);
  if (!pass || !m_bInit.load(std::memory_order_acquire)) return;
  va_list args;
  va_start(args, format);
  TraceFormatted(*this, subModule.str(), level, format, args);
  va_end(args);
}

void ToviDebugMgr::Printf(const char* format, ...) {
  const callgate::Pass pass(this);
  if (!pass || !m_bInit.load(std::memory_order_acquire)) return;
  va_list args;
  va_start(args, format);
  TraceFormatted(*this, DefSubModuleName(), m_nDefLogLevel.load(std::memory_order_relaxed), format,
                 args);
  va_end(args);
}
