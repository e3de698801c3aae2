// Command code lists: what is parsed, and texts that must be refused without
// touching the result.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "ToviBaseUtil.h"

namespace {
using Codes = std::vector<int32_t>;

// Parses a private, exactly sized copy of the text, so that a read past its
// end shows under ASan; the text must come back unchanged. A refused text
// must leave both fields of the result exactly as the caller set them.
int Parse(const char* text, Codes& codes) {
  std::vector<char> buf;
  if (text != nullptr) buf.assign(text, text + std::strlen(text) + 1);
  int32_t sentinel[1] = {42};
  CmdCodeVecter out{-7, sentinel};
  const int rc = GetCmdCodefromString(out, text != nullptr ? buf.data() : nullptr);
  EXPECT_STREQ(text != nullptr ? buf.data() : nullptr, text) << "the text was modified";
  if (rc != 1) {
    EXPECT_TRUE(out.nCmdNum == -7 && out.pCmdCode == sentinel && sentinel[0] == 42);
    return rc;
  }
  codes.assign(out.pCmdCode, out.pCmdCode + out.nCmdNum);
  delete[] out.pCmdCode;
  return rc;
}
}  // namespace

TEST(CmdCodeParse, AcceptedAndRefusedTexts) {
  // An empty expectation means the text is refused.
  const std::pair<const char*, Codes> cases[] = {
      {"1,2,3", {1, 2, 3}}, {" 7 , 8", {7, 8}}, {"1,,2", {1, 0, 2}},
      // A trailing comma opens no further piece; a lone blank piece is 0.
      {"1,2,", {1, 2}}, {",", {0}}, {",,", {0, 0}}, {"   ", {0}},
      // Digits stop at the first blank after them.
      {"1 2,3", {1, 3}}, {"007, 10 ", {7, 10}},
      // Nine characters, blanks included, is the longest piece taken; a
      // ten-character piece anywhere refuses the whole text.
      {"123456789", {123456789}}, {"999999999,1", {999999999, 1}}, {"   123456", {123456}},
      {"1234567890", {}}, {" 123456789", {}}, {"1,1234567890,2", {}}, {"1,2,          ", {}},
      {nullptr, {}}, {"", {}}, {"-1", {}}, {"1\t2", {}}, {"0x10", {}}, {"1,2,a", {}}};
  for (const auto& c : cases) {
    Codes codes;
    const std::string label = c.first != nullptr ? "'" + std::string(c.first) + "'" : "null";
    EXPECT_EQ(Parse(c.first, codes), c.second.empty() ? 0 : 1) << label;
    EXPECT_EQ(codes, c.second) << label;
  }
}
