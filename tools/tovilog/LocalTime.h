// LocalTime.h - instants on the local wall clock, as the log files write
// them.
//
// A record carries its local time of day and nothing about the zone, so the
// reader orders and filters on the wall clock: microseconds since 1970-01-01
// 00:00 local time ("wall time"). Only the JSON output needs the offset from
// UTC; it is looked up once per hour of wall time.
#ifndef TOVI_TOOLS_TOVILOG_LOCALTIME_H
#define TOVI_TOOLS_TOVILOG_LOCALTIME_H

#include <cstdint>
#include <limits>
#include <string>

namespace tovilog {

constexpr int64_t kMicrosPerSecond = 1000000;
constexpr int64_t kMicrosPerHour = 3600 * kMicrosPerSecond;
constexpr int64_t kMicrosPerDay = 24 * kMicrosPerHour;
constexpr int64_t kNoTime = std::numeric_limits<int64_t>::min();
constexpr int64_t kEndOfTime = std::numeric_limits<int64_t>::max();

struct CivilDate {
  int year;
  int month;
  int day;
};

int64_t DaysFromCivil(int year, int month, int day);
CivilDate CivilFromDays(int64_t days);
// The day of a wall time, rounding towards the past.
int64_t DayOf(int64_t wall);

// A wall time from its parts; false when a part is out of range.
bool MakeWall(int year, int month, int day, int hour, int minute, int second, int64_t micros,
              int64_t& wall);
int64_t WallFromEpoch(int64_t epochSeconds);
int64_t WallNow();

// "YYYY-MM-DD".
std::string FormatDate(int64_t day);
// "YYYY-MM-DD HH:MM:SS.uuuuuu", with `separator` between date and time.
std::string FormatWall(int64_t wall, char separator = ' ');
// ISO 8601 with microseconds and the zone offset ("+01:00"); an offset with
// seconds, which only historical zones have, keeps them ("+00:17:30").
std::string FormatIso(int64_t wall);

}  // namespace tovilog

#endif
