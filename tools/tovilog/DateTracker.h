// DateTracker.h - the full date of each record of one file.
//
// A record line has only its time of day. The date starts from the file's
// name, is set by every line that carries a full date and time (the
// creation line, the "Current date&time" lines, the stop lines), and between
// those lines moves with the time of day:
//   - a time of day more than 12 hours before the previous one is on the
//     next day (midnight passed; the date line is written into only one
//     writer's file of a process, so the others see no date line);
//   - a time of day less than an hour after the previous one's, counted
//     backwards across midnight (23:59:59.9 after 00:00:00.1), is on the day
//     before: a record stamped before midnight and written after it.
// Anything else stays on the same day, so a writer that was silent for more
// than a day without a date line cannot be told apart from one that was
// silent for a moment, and records held back for more than 12 hours come
// out a day late unless a date line precedes them.
#ifndef TOVI_TOOLS_TOVILOG_DATETRACKER_H
#define TOVI_TOOLS_TOVILOG_DATETRACKER_H

#include <cstdint>

namespace tovilog {

class DateTracker {
public:
  explicit DateTracker(int64_t start) { Set(start); }

  // A line that carries its full date and time.
  void Set(int64_t wall);
  // The full time of a record from its time of day.
  int64_t Place(int64_t timeOfDay);
  // The time of the last line placed or set.
  int64_t Last() const;

private:
  int64_t day_ = 0;
  int64_t timeOfDay_ = 0;
};

}  // namespace tovilog

#endif
