// TimeStamp.cpp - the per-thread cache of the current second's text.
#include "logwriter/TimeStamp.h"

#include <cstring>
#include <ctime>

#include <ace/OS_NS_stdio.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/OS_NS_time.h>

namespace timestamp {
namespace {

constexpr int kSecondLength = 19;  // "YYYY-MM-DD HH:MM:SS"

struct SecondText {
  time_t second = 0;
  bool valid = false;
  char text[40] = {};
};
thread_local SecondText t_second;

// The seconds part exactly as ACE::timestamp formats it.
void FormatSecond(time_t second, SecondText& cache) {
  std::tm local{};
  ACE_OS::localtime_r(&second, &local);
  ACE_OS::snprintf(cache.text, sizeof cache.text, "%4.4d-%2.2d-%2.2d %2.2d:%2.2d:%2.2d",
                   local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                   local.tm_min, local.tm_sec);
  cache.second = second;
  // A year beyond four digits makes a longer text; it is never cached.
  cache.valid = std::strlen(cache.text) == kSecondLength;
}

}  // namespace

void Format(const ACE_Time_Value& now, char* out) {
  SecondText& cache = t_second;
  const time_t second = now.sec();
  if (!cache.valid || cache.second != second) FormatSecond(second, cache);
  if (!cache.valid) {
    char longer[64];
    ACE_OS::snprintf(longer, sizeof longer, "%s.%06ld", cache.text, static_cast<long>(now.usec()));
    std::memcpy(out, longer, kLength);
    out[kLength] = '\0';
    return;
  }
  std::memcpy(out, cache.text, kSecondLength);
  out[kSecondLength] = '.';
  long micros = static_cast<long>(now.usec());
  for (int i = kLength - 1; i > kSecondLength; --i) {
    out[i] = static_cast<char>('0' + micros % 10);
    micros /= 10;
  }
  out[kLength] = '\0';
}

void FormatNow(char* out) { Format(ACE_OS::gettimeofday(), out); }

}  // namespace timestamp
