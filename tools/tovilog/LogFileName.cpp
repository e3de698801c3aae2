// LogFileName.cpp - parsing a log file's name.
#include "LogFileName.h"

#include <re2/re2.h>

#include "LocalTime.h"

namespace tovilog {

bool ParseLogFileName(const std::string& name, LogFileName& out) {
  static const RE2 kName(R"(((.*)(\d{4})(\d\d)(\d\d)_(\d\d)(\d\d)(\d\d))\.log(\.gz)?)");
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  std::string gz;
  if (!RE2::FullMatch(name, kName, &out.stem, &out.prefix, &year, &month, &day, &hour, &minute,
                      &second, &gz)) {
    return false;
  }
  out.compressed = !gz.empty();
  return MakeWall(year, month, day, hour, minute, second, 0, out.created);
}

}  // namespace tovilog
