// Options.h - the command line of tovilog.
#ifndef TOVI_TOOLS_TOVILOG_OPTIONS_H
#define TOVI_TOOLS_TOVILOG_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Level.h"
#include "LocalTime.h"

namespace tovilog {

struct Options {
  std::vector<std::string> paths;
  std::vector<std::string> prefixes;
  std::vector<std::string> modules;
  std::vector<std::string> threadTexts;
  std::string grep;
  bool ignoreCase = false;
  bool json = false;
  bool count = false;
  bool stats = false;
  bool follow = false;
  bool quietEvents = false;
  bool byWriter = false;

  // Resolved from the texts.
  int64_t since = kNoTime;
  int64_t until = kEndOfTime;
  unsigned levels = kAllLevels;
  std::vector<uint32_t> threads;
};

// Parses the command line into `options`. Returns the exit status when the
// program should end at once: 0 after --help, 2 after a usage error (which
// has been reported).
std::optional<int> ParseOptions(int argc, char** argv, Options& options);

}  // namespace tovilog

#endif
