// StringTrim.cpp - the two trimming operations shared by the configuration
// reader and the path functions. Blanks are space and tab only: a CR that
// survived a line read is kept, as the file's writer put it there.
#include <cstring>
#include <string>

#include "ToviBaseUtil.h"
#include "baseutil/ConfigReader.h"

static bool IsBlank(char c) { return c == ' ' || c == '\t'; }

void ToviStrTrim(char* text) {
  if (text == nullptr || *text == '\0') return;

  const std::size_t len = std::strlen(text);
  std::size_t first = 0;
  while (first < len && IsBlank(text[first])) ++first;
  if (first == len) {
    text[0] = '\0';
    return;
  }
  std::size_t last = len - 1;
  while (IsBlank(text[last])) --last;
  if (first == 0 && last == len - 1) return;

  const std::size_t kept = last - first + 1;
  std::memmove(text, text + first, kept);
  text[kept] = '\0';
}

std::string TrimString(const std::string& text, const char* set) {
  if (set == nullptr || *set == '\0') return text;
  const std::size_t first = text.find_first_not_of(set);
  const std::size_t last = text.find_last_not_of(set);
  if (last == std::string::npos) return std::string();
  const std::size_t start = (first == std::string::npos) ? 0 : first;
  return text.substr(start, last - start + 1);
}
