// Level.h - record levels as the files show them. Levels 0 to 3 write a
// prefix ("ASSERT: ", "ERROR: ", "WARN: ", "INFO: "); levels 4 to 31 write
// none, so a reader cannot tell them apart and treats them as one level,
// "4-31", the least severe.
#ifndef TOVI_TOOLS_TOVILOG_LEVEL_H
#define TOVI_TOOLS_TOVILOG_LEVEL_H

#include <string>
#include <string_view>

namespace tovilog {

constexpr int kUnmarkedLevel = 4;
constexpr unsigned kAllLevels = (1u << (kUnmarkedLevel + 1)) - 1;

const char* LevelName(int level);

// The level whose prefix starts `text`, and the prefix's length; the
// unmarked level and 0 when none does.
int LevelOfText(std::string_view text, std::size_t& prefixLength);

// Adds the levels of one --level value to `mask` (bit n: level n): a name
// (any case), a number from 0 to 31, or "4-31"; a trailing "+" adds the more
// severe levels too. False when the value is none of these.
bool AddLevels(const std::string& value, unsigned& mask);

}  // namespace tovilog

#endif
