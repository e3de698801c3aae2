// Printf.cpp - printf-style tracing. The text is formatted into a fixed
// stack buffer and traced with no demands of its own, so the sub-module's
// registry entry alone decides where it goes. A text that does not fit is
// refused whole rather than cut.
#include <cerrno>
#include <cstdarg>

#include "ToviDebugMgr.h"
#include "ToviInterString.h"
#include "port/ToviPort.h"

namespace {
constexpr std::size_t kFormatBufSize = 2048;

// Formats into buf; true when the text has 1 to 2047 characters.
bool FormatMessage(char (&buf)[kFormatBufSize], const char* format, va_list args) {
  buf[0] = '\0';
  if (format == nullptr) return false;
  const int n = toviport::VFormat(buf, sizeof buf, format, args);
  return n >= 1 && static_cast<std::size_t>(n) < kFormatBufSize;
}
}  // namespace

void ToviDebugMgr::Printf(ToviLogLevel level, const char* format, ...) {
  if (!IsInit()) return;
  char text[kFormatBufSize];
  va_list args;
  va_start(args, format);
  const bool formatted = FormatMessage(text, format, args);
  va_end(args);
  if (formatted) {
    Trace(m_strDefSubModuleName, level, text, nullptr, false, false);
    return;
  }
  toviport::ConsolePrintf("Printf, vsnprintf failed. errno:%d\n", errno);
}

void ToviDebugMgr::Printf(ToviLogLevel level, const ToviInterString& subModule,
                          const char* format, ...) {
  if (!IsInit()) return;
  char text[kFormatBufSize];
  va_list args;
  va_start(args, format);
  const bool formatted = FormatMessage(text, format, args);
  va_end(args);
  if (formatted) Trace(subModule.str(), level, text, nullptr, false, false);
}

void ToviDebugMgr::Printf(const char* format, ...) {
  if (!IsInit()) return;
  char text[kFormatBufSize];
  va_list args;
  va_start(args, format);
  const bool formatted = FormatMessage(text, format, args);
  va_end(args);
  if (formatted) Trace(m_strDefSubModuleName, m_nDefLogLevel, text, nullptr, false, false);
}
