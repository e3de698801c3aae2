// CommandCodes.cpp - turning a text such as "1, 5,12" into an array of
// command codes.
//
// The text is checked completely before the caller's structure is touched,
// so a refused text leaves it exactly as it was. A piece (the characters
// between two commas, blanks included) holds at most nine characters, so
// every code fits in 32 bits without a range check. A longer piece refuses
// the whole text, since cutting it would silently turn one code into another.
#include <cstddef>
#include <new>

#include "ToviBaseUtil.h"

namespace {
constexpr std::size_t kMaxPieceLen = 9;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Reads [begin, end) as atoi would: leading blanks, then digits up to the
// first other character. Only blanks and digits can reach here, and at most
// nine of them, so the value cannot overflow.
int32_t PieceValue(const char* begin, const char* end) {
  while (begin != end && *begin == ' ') ++begin;
  int32_t value = 0;
  for (; begin != end && IsDigit(*begin); ++begin) value = value * 10 + (*begin - '0');
  return value;
}
}  // namespace

int GetCmdCodefromString(CmdCodeVecter& codes, char* text) {
  if (text == nullptr || *text == '\0') return 0;

  std::size_t commas = 0;
  std::size_t pieceLen = 0;
  const char* end = text;
  for (; *end != '\0'; ++end) {
    if (*end == ',') {
      ++commas;
      pieceLen = 0;
      continue;
    }
    if (!IsDigit(*end) && *end != ' ') return 0;
    if (++pieceLen > kMaxPieceLen) return 0;
  }

  // Room for the most pieces the text can hold; a trailing comma leaves
  // the last element unused.
  // A refusal, this one included, leaves the caller's result untouched.
  int32_t* values = new (std::nothrow) int32_t[commas + 1];
  if (values == nullptr) {
    ToviOutputString_i("GetCmdCodefromString: Memory alloc failed!\n");
    return 0;
  }

  int32_t stored = 0;
  const char* start = text;
  while (start != end) {
    const char* stop = start;
    while (stop != end && *stop != ',') ++stop;
    values[stored++] = PieceValue(start, stop);
    start = (stop == end) ? end : stop + 1;
  }
  codes.pCmdCode = values;
  codes.nCmdNum = stored;
  return 1;
}
