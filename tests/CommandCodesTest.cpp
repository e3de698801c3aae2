// Message type names and command code lists: the name table, the parsing of
// code lists, and texts that must be refused without touching the result.
#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "ToviBaseUtil.h"

namespace {
using Codes = std::vector<int32_t>;

// Parses a private, exactly sized copy of the text, so that a read past its
// end shows under ASan, and checks that the text comes back unchanged.
Codes Parse(const std::string& text) {
  std::vector<char> buf(text.begin(), text.end());
  buf.push_back('\0');
  CmdCodeVecter out{-1, nullptr};
  const int rc = GetCmdCodefromString(out, buf.data());
  EXPECT_EQ(std::string(buf.data()), text) << "the text was modified";
  EXPECT_EQ(rc, 1) << "'" << text << "' was refused";
  if (rc != 1 || out.pCmdCode == nullptr) return {};
  Codes codes(out.pCmdCode, out.pCmdCode + out.nCmdNum);
  delete[] out.pCmdCode;
  return codes;
}

// A refused text must leave both fields exactly as the caller set them.
void ExpectRefused(char* text, const std::string& label) {
  int32_t sentinel[1] = {42};
  CmdCodeVecter out{-7, sentinel};
  EXPECT_EQ(GetCmdCodefromString(out, text), 0) << label;
  EXPECT_EQ(out.nCmdNum, -7) << label;
  EXPECT_EQ(out.pCmdCode, sentinel) << label;
  EXPECT_EQ(sentinel[0], 42) << label;
}

void ExpectRefused(const std::string& text) {
  std::vector<char> buf(text.begin(), text.end());
  buf.push_back('\0');
  ExpectRefused(buf.data(), "'" + text + "'");
  EXPECT_EQ(std::string(buf.data()), text);
}
}  // namespace

TEST(MsgTypeNames, WholeTableAndUnknownCodes) {
  const char* const expected[31] = {
      "", "REQUESTBC", "RESPONSEBC", "REGISTER", "RESTART", "ANSFRAME",
      "REQUESTNBC", "RESPONSENBC", "TIMER", "EXIT", "SVCTYPEINFO_REQ_V3",
      "", "", "", "", "",
      "SHAKEHAND", "RECONNECT", "GET_COUNTER_REQ", "GET_COUNTER_RSP", "INQUIRE",
      "GET_SVR_STATE", "GET_TASKMGR_STATE", "CORE_DUMP_CMD", "MULTCMD_REG",
      "HEARTBEAT_REQ", "HEARTBEAT_RSP", "DISPFAIL_RSP", "SVCTYPEINFO_REQ",
      "QUERY_REQ", "QUERY_RSP"};
  std::set<std::string> seen;
  for (unsigned code = 0; code < 31; ++code) {
    const char* name = ToviGetMsgTypeString(static_cast<unsigned char>(code));
    ASSERT_NE(name, nullptr) << code;
    EXPECT_STREQ(name, expected[code]) << code;
    if (*name != '\0') {
      EXPECT_TRUE(seen.insert(name).second) << "duplicate " << name;
    }
  }
  EXPECT_EQ(seen.size(), 25u);
  EXPECT_STREQ(ToviGetMsgTypeString(0), "");
  EXPECT_STREQ(ToviGetMsgTypeString(13), "");
  EXPECT_STREQ(ToviGetMsgTypeString(16), "SHAKEHAND");
  EXPECT_STREQ(ToviGetMsgTypeString(30), "QUERY_RSP");
  for (unsigned code = 31; code <= 255; ++code)
    EXPECT_STREQ(ToviGetMsgTypeString(static_cast<unsigned char>(code)), "unknow") << code;
}

TEST(CmdCodeParse, PiecesBlanksAndEmptyPieces) {
  EXPECT_EQ(Parse("1,2,3"), (Codes{1, 2, 3}));
  EXPECT_EQ(Parse(" 7 , 8"), (Codes{7, 8}));
  EXPECT_EQ(Parse("1,,2"), (Codes{1, 0, 2}));
  // A trailing comma opens no further piece.
  EXPECT_EQ(Parse("1,2,"), (Codes{1, 2}));
  EXPECT_EQ(Parse(","), (Codes{0}));
  EXPECT_EQ(Parse(",,"), (Codes{0, 0}));
  EXPECT_EQ(Parse("   "), (Codes{0}));
  // Digits stop at the first blank after them.
  EXPECT_EQ(Parse("1 2,3"), (Codes{1, 3}));
  EXPECT_EQ(Parse("007, 10 "), (Codes{7, 10}));
}

TEST(CmdCodeParse, InvalidTextsLeaveResultUntouched) {
  ExpectRefused(nullptr, "null");
  for (const char* text : {"", "-1", "+1", "1;2", "1\t2", "0x10", "1,2,a", "1\n"})
    ExpectRefused(text);
}

TEST(CmdCodeParse, PieceLengthLimit) {
  EXPECT_EQ(Parse("123456789"), (Codes{123456789}));
  EXPECT_EQ(Parse("999999999,1"), (Codes{999999999, 1}));
  EXPECT_EQ(Parse("   123456"), (Codes{123456}));
  // Ten characters in one piece, blanks included, refuse the whole text.
  ExpectRefused("1234567890");
  ExpectRefused(" 123456789");
  ExpectRefused("1,1234567890,2");
  ExpectRefused("1,2,          ");
}
