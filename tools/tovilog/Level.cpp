// Level.cpp - level names, prefixes and --level values.
#include "Level.h"

#include <strings.h>

#include <cstring>

#include <re2/re2.h>

#include "logwriter/LogFormat.h"

namespace tovilog {
namespace {

static_assert(kUnmarkedLevel == logformat::kNamedLevels, "levels past the named ones share one");
constexpr char kUnmarkedName[] = "4-31";

int LevelOfName(const std::string& name) {
  for (int level = 0; level <= kUnmarkedLevel; ++level) {
    if (strcasecmp(name.c_str(), LevelName(level)) == 0) return level;
  }
  int number = -1;
  if (!RE2::FullMatch(name, R"((\d{1,2}))", &number) || number > 31) return -1;
  return number < kUnmarkedLevel ? number : kUnmarkedLevel;
}

}  // namespace

const char* LevelName(int level) {
  // The names are literals, so each view ends in a NUL.
  return logformat::IsNamedLevel(level) ? logformat::kLevels[level].name.data() : kUnmarkedName;
}

int LevelOfText(std::string_view text, std::size_t& prefixLength) {
  // By the first letter first: this runs for every record, and the named
  // levels' prefixes all start differently.
  prefixLength = 0;
  if (text.empty()) return kUnmarkedLevel;
  for (int level = 0; level < logformat::kNamedLevels; ++level) {
    const std::string_view prefix = logformat::kLevels[level].prefix;
    if (text[0] != prefix[0]) continue;
    if (text.substr(0, prefix.size()) != prefix) return kUnmarkedLevel;
    prefixLength = prefix.size();
    return level;
  }
  return kUnmarkedLevel;
}

bool AddLevels(const std::string& value, unsigned& mask) {
  const bool orMore = !value.empty() && value.back() == '+';
  const int level = LevelOfName(orMore ? value.substr(0, value.size() - 1) : value);
  if (level < 0) return false;
  mask |= orMore ? (2u << level) - 1 : 1u << level;
  return true;
}

}  // namespace tovilog
