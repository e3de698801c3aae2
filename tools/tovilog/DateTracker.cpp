// DateTracker.cpp - carrying the date over midnight.
#include "DateTracker.h"

#include "LocalTime.h"

namespace tovilog {
namespace {
constexpr int64_t kHalfDay = kMicrosPerDay / 2;
// How far before the previous record, across midnight, a record may be
// stamped and still be taken as written late rather than a day later.
constexpr int64_t kLateWrite = kMicrosPerHour;
}  // namespace

void DateTracker::Set(int64_t wall) {
  day_ = DayOf(wall);
  timeOfDay_ = wall - day_ * kMicrosPerDay;
}

int64_t DateTracker::Place(int64_t timeOfDay) {
  if (timeOfDay < timeOfDay_ - kHalfDay) {
    ++day_;
  } else if (timeOfDay > timeOfDay_ + kMicrosPerDay - kLateWrite) {
    --day_;
  }
  timeOfDay_ = timeOfDay;
  return Last();
}

int64_t DateTracker::Last() const { return day_ * kMicrosPerDay + timeOfDay_; }

}  // namespace tovilog
