// TimeStamp.cpp - the per-thread cache of the current second's text.
#include "logwriter/TimeStamp.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include "port/ToviPort.h"

namespace timestamp {
namespace {

constexpr int kSecondLength = 19;  // "YYYY-MM-DD HH:MM:SS"

struct SecondText {
  time_t second = 0;
  bool valid = false;
  char text[40] = {};
};
thread_local SecondText t_second __attribute__((tls_model("initial-exec")));

// The seconds part exactly as ACE::timestamp formats it.
void FormatSecond(time_t second, SecondText& cache) {
  const std::tm local = toviport::LocalTime(second);
  std::snprintf(cache.text, sizeof cache.text, "%4.4d-%2.2d-%2.2d %2.2d:%2.2d:%2.2d",
                local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                local.tm_min, local.tm_sec);
  cache.second = second;
  // A year beyond four digits makes a longer text; it is never cached.
  cache.valid = std::strlen(cache.text) == kSecondLength;
}

}  // namespace

void Format(const ACE_Time_Value& now, char* out) {
  Format(now.sec(), static_cast<long>(now.usec()), out);
}

void Format(time_t second, long microseconds, char* out) {
  SecondText& cache = t_second;
  if (!cache.valid || cache.second != second) FormatSecond(second, cache);
  if (!cache.valid) {
    char longer[64];
    std::snprintf(longer, sizeof longer, "%s.%06ld", cache.text, microseconds);
    std::memcpy(out, longer, kLength);
    out[kLength] = '\0';
    return;
  }
  // Six digits, two at a time.
  static const char kPairs[] =
      "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
      "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
      "8081828384858687888990919293949596979899";
  const unsigned micros = static_cast<unsigned>(microseconds);
  std::memcpy(out, cache.text, kSecondLength);
  out[kSecondLength] = '.';
  std::memcpy(out + 20, kPairs + 2 * (micros / 10000), 2);
  std::memcpy(out + 22, kPairs + 2 * (micros / 100 % 100), 2);
  std::memcpy(out + 24, kPairs + 2 * (micros % 100), 2);
  out[kLength] = '\0';
}

void FormatNow(char* out) {
  int64_t seconds = 0;
  long microseconds = 0;
  toviport::CurrentTimeOfDay(seconds, microseconds);
  Format(static_cast<time_t>(seconds), microseconds, out);
}

}  // namespace timestamp
