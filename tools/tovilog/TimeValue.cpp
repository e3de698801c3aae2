// TimeValue.cpp - reading the time forms of --since and --until.
#include "TimeValue.h"

#include <re2/re2.h>

#include "LocalTime.h"

namespace tovilog {
namespace {

// A group that took no part in the match is empty and counts as 0.
int Number(const std::string& digits) { return digits.empty() ? 0 : std::stoi(digits); }

// Microseconds from up to six digits of fraction.
int64_t Micros(const std::string& fraction) {
  std::string digits = fraction;
  digits.resize(6, '0');
  return std::stoll(digits);
}

}  // namespace

bool ParseTimeValue(const std::string& text, int64_t now, int64_t& wall) {
  static const RE2 kFull(
      R"((\d{4})-(\d\d)-(\d\d)(?:[ T](\d\d):(\d\d)(?::(\d\d)(?:\.(\d{1,6}))?)?)?)");
  static const RE2 kTimeOfDay(R"((\d\d?):(\d\d)(?::(\d\d)(?:\.(\d{1,6}))?)?)");
  static const RE2 kRelative(R"(-(\d{1,9})([smhd]))");
  if (text == "now") {
    wall = now;
    return true;
  }
  // The start of today or of yesterday, as journalctl takes them.
  if (text == "today" || text == "yesterday") {
    const CivilDate day = CivilFromDays(DayOf(now) - (text == "yesterday" ? 1 : 0));
    return MakeWall(day.year, day.month, day.day, 0, 0, 0, 0, wall);
  }
  std::string year, month, day, hour, minute, second, fraction;
  if (RE2::FullMatch(text, kFull, &year, &month, &day, &hour, &minute, &second, &fraction)) {
    return MakeWall(Number(year), Number(month), Number(day), Number(hour), Number(minute),
                    Number(second), Micros(fraction), wall);
  }
  if (RE2::FullMatch(text, kTimeOfDay, &hour, &minute, &second, &fraction)) {
    const CivilDate today = CivilFromDays(DayOf(now));
    return MakeWall(today.year, today.month, today.day, Number(hour), Number(minute),
                    Number(second), Micros(fraction), wall);
  }
  int64_t amount = 0;
  std::string unit;
  if (!RE2::FullMatch(text, kRelative, &amount, &unit)) return false;
  const int64_t scale = unit == "s"   ? kMicrosPerSecond
                        : unit == "m" ? 60 * kMicrosPerSecond
                        : unit == "h" ? kMicrosPerHour
                                      : kMicrosPerDay;
  wall = now - amount * scale;
  return true;
}

}  // namespace tovilog
