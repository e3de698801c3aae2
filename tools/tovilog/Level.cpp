// Level.cpp - level names, prefixes and --level values.
#include "Level.h"

#include <strings.h>

#include <cstring>

#include <re2/re2.h>

namespace tovilog {
namespace {

const char* const kNames[] = {"ASSERT", "ERROR", "WARN", "INFO", "4-31"};
const char* const kPrefixes[] = {"ASSERT: ", "ERROR: ", "WARN: ", "INFO: "};

int LevelOfName(const std::string& name) {
  for (int level = 0; level <= kUnmarkedLevel; ++level) {
    if (strcasecmp(name.c_str(), kNames[level]) == 0) return level;
  }
  int number = -1;
  if (!RE2::FullMatch(name, R"((\d{1,2}))", &number) || number > 31) return -1;
  return number < kUnmarkedLevel ? number : kUnmarkedLevel;
}

}  // namespace

const char* LevelName(int level) {
  return level >= 0 && level < kUnmarkedLevel ? kNames[level] : kNames[kUnmarkedLevel];
}

int LevelOfText(std::string_view text, std::size_t& prefixLength) {
  // By the first letter: this runs for every record.
  const int level = text.empty() ? kUnmarkedLevel
                    : text[0] == 'A' ? 0
                    : text[0] == 'E' ? 1
                    : text[0] == 'W' ? 2
                    : text[0] == 'I' ? 3
                                     : kUnmarkedLevel;
  prefixLength = 0;
  if (level == kUnmarkedLevel) return level;
  const std::string_view prefix = kPrefixes[level];
  if (text.substr(0, prefix.size()) != prefix) return kUnmarkedLevel;
  prefixLength = prefix.size();
  return level;
}

bool AddLevels(const std::string& value, unsigned& mask) {
  const bool orMore = !value.empty() && value.back() == '+';
  const int level = LevelOfName(orMore ? value.substr(0, value.size() - 1) : value);
  if (level < 0) return false;
  mask |= orMore ? (2u << level) - 1 : 1u << level;
  return true;
}

}  // namespace tovilog
