// DeferredFormat.h - printf formatting moved from the caller to the writer.
//
// A trace call that formats its message pays for the whole of printf on the
// caller's thread. Most messages are a short text with a number or two in it,
// so the call instead copies the format and its arguments, and the writer
// thread formats them later with the same conversions, giving the very bytes
// the call would have made. Whatever cannot be reproduced exactly later (a
// conversion that writes back through a pointer, reads errno, depends on the
// thread, or might come out empty or longer than a record may hold) is left
// to the call to format at once.
//
// Locale: the writer formats in the process's global locale at the moment it
// formats. A thread that set a locale of its own with uselocale gets its
// floating conversions formatted at the call, so their bytes are those of its
// own locale. A setlocale that changes LC_NUMERIC while records are in flight
// may reach those records: their decimal points are the new locale's.
#ifndef TOVI_LOGWRITER_DEFERREDFORMAT_H
#define TOVI_LOGWRITER_DEFERREDFORMAT_H

#include <cstdarg>
#include <cstddef>

namespace deferred {

// The longest text a record's message may have; a longer result is refused whole.
constexpr std::size_t kMaxText = 2047;

// Walks format once and copies it and every argument into out[0, capacity).
// Returns the bytes used, or 0 when this call must be formatted at once (the
// caller then uses vsnprintf on its own va_copy as today). A nonzero result
// promises that Render gives exactly vsnprintf's bytes for this call and that
// they are 1 to kMaxText characters. args is consumed.
std::size_t Capture(const char* format, va_list args, char* out, std::size_t capacity);

// Formats a capture made by Capture into out (kMaxText + 1 bytes) and ends it
// with a NUL; returns its length, always 1 to kMaxText for a capture Capture
// accepted. The bytes may come from a damaged file: anything that is not a
// capture gives 0, and nothing outside [captured, captured + size) is read.
std::size_t Render(const char* captured, std::size_t size, char* out);

}  // namespace deferred

#endif
