// LogFileName.h - what a log file's name says: the writer's prefix, the
// second that created the file, and whether it is an archive.
#ifndef TOVI_TOOLS_TOVILOG_LOGFILENAME_H
#define TOVI_TOOLS_TOVILOG_LOGFILENAME_H

#include <cstdint>
#include <string>

namespace tovilog {

struct LogFileName {
  std::string prefix;
  std::string stem;  // the name without ".log" / ".log.gz"
  int64_t created = 0;  // wall time
  bool compressed = false;
};

// `<prefix><YYYYmmdd_HHMMSS>.log` or the same with ".gz". The time part is
// the last fifteen characters before ".log": a writer's prefix may itself be
// the start of another writer's prefix, and only this tells them apart.
bool ParseLogFileName(const std::string& name, LogFileName& out);

}  // namespace tovilog

#endif
