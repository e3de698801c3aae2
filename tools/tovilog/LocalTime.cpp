// LocalTime.cpp - civil dates by the proleptic Gregorian calendar, and the
// zone offset from the C library's idea of local time (TZ).
#include "LocalTime.h"

#include <cstdio>
#include <ctime>
#include <sys/time.h>

namespace tovilog {
namespace {

int64_t FloorDiv(int64_t a, int64_t b) { return a / b - (a % b != 0 && (a < 0) != (b < 0)); }

bool IsLeap(int year) { return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0); }

int DaysInMonth(int year, int month) {
  static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && IsLeap(year) ? 29 : kDays[month - 1];
}

// The offset from UTC, in seconds, in force at the start of a wall hour.
long OffsetOfHour(int64_t hour) {
  const int64_t wall = hour * kMicrosPerHour;
  const CivilDate date = CivilFromDays(DayOf(wall));
  std::tm local{};
  local.tm_year = date.year - 1900;
  local.tm_mon = date.month - 1;
  local.tm_mday = date.day;
  local.tm_hour = static_cast<int>(hour - DayOf(wall) * 24);
  local.tm_isdst = -1;
  if (std::mktime(&local) == static_cast<std::time_t>(-1)) return 0;
  return local.tm_gmtoff;
}

}  // namespace

int64_t DaysFromCivil(int year, int month, int day) {
  const int64_t y = year - (month <= 2);
  const int64_t era = FloorDiv(y, 400);
  const int64_t yearOfEra = y - era * 400;
  const int64_t dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  const int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + dayOfEra - 719468;
}

CivilDate CivilFromDays(int64_t days) {
  days += 719468;
  const int64_t era = FloorDiv(days, 146097);
  const int64_t dayOfEra = days - era * 146097;
  const int64_t yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const int64_t mp = (5 * dayOfYear + 2) / 153;
  const int month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  const int year = static_cast<int>(yearOfEra + era * 400 + (month <= 2));
  return {year, month, static_cast<int>(dayOfYear - (153 * mp + 2) / 5 + 1)};
}

int64_t DayOf(int64_t wall) { return FloorDiv(wall, kMicrosPerDay); }

bool MakeWall(int year, int month, int day, int hour, int minute, int second, int64_t micros,
              int64_t& wall) {
  if (month < 1 || month > 12 || day < 1 || day > DaysInMonth(year, month)) return false;
  // 60 is a leap second, which a local clock may show.
  if (hour > 23 || minute > 59 || second > 60 || micros < 0 || micros >= kMicrosPerSecond) {
    return false;
  }
  wall = DaysFromCivil(year, month, day) * kMicrosPerDay +
         ((hour * 60 + minute) * 60 + second) * kMicrosPerSecond + micros;
  return true;
}

int64_t WallFromEpoch(int64_t epochSeconds) {
  const std::time_t t = static_cast<std::time_t>(epochSeconds);
  std::tm local{};
  localtime_r(&t, &local);
  int64_t wall = 0;
  MakeWall(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
           local.tm_sec, 0, wall);
  return wall;
}

int64_t WallNow() {
  timeval now{};
  gettimeofday(&now, nullptr);
  return WallFromEpoch(now.tv_sec) + now.tv_usec;
}

std::string FormatDate(int64_t day) {
  const CivilDate d = CivilFromDays(day);
  char buf[32];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02d", d.year, d.month, d.day);
  return buf;
}

std::string FormatWall(int64_t wall, char separator) {
  const int64_t day = DayOf(wall);
  const int64_t micros = wall - day * kMicrosPerDay;
  const int64_t seconds = micros / kMicrosPerSecond;
  char buf[48];
  std::snprintf(buf, sizeof buf, "%c%02d:%02d:%02d.%06d", separator,
                static_cast<int>(seconds / 3600), static_cast<int>(seconds / 60 % 60),
                static_cast<int>(seconds % 60), static_cast<int>(micros % kMicrosPerSecond));
  return FormatDate(day) + buf;
}

std::string FormatIso(int64_t wall) {
  static int64_t cachedHour = kNoTime;
  static long cachedOffset = 0;
  const int64_t hour = FloorDiv(wall, kMicrosPerHour);
  if (hour != cachedHour) {
    cachedHour = hour;
    cachedOffset = OffsetOfHour(hour);
  }
  const long offset = cachedOffset < 0 ? -cachedOffset : cachedOffset;
  char zone[24];
  std::snprintf(zone, sizeof zone, "%c%02ld:%02ld", cachedOffset < 0 ? '-' : '+', offset / 3600,
                offset / 60 % 60);
  std::string iso = FormatWall(wall, 'T') + zone;
  if (offset % 60 != 0) {
    std::snprintf(zone, sizeof zone, ":%02ld", offset % 60);
    iso += zone;
  }
  return iso;
}

}  // namespace tovilog
