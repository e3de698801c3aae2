// Command code lists, what is parsed and which texts must be refused without
// touching the result, and the names of message types.
#include "WriterTestSupport.h"

TEST(CmdCodeParse, AcceptedAndRefusedTexts) {
  // An empty expectation means the text is refused. Nine characters, blanks
  // included, is the longest piece taken; a longer one anywhere refuses the
  // whole text. A trailing comma opens no further piece.
  const std::pair<const char*, std::vector<int32_t>> cases[] = {
      {" 7 , 8", {7, 8}}, {"1,,2", {1, 0, 2}}, {"1,2,", {1, 2}}, {"   ", {0}}, {"1 2,3", {1, 3}},
      {"999999999,1", {999999999, 1}}, {"1,1234567890,2", {}}, {" 123456789", {}},
      {nullptr, {}}, {"", {}}, {"-1", {}}, {"1\t2", {}}, {"0x10", {}}};
  for (const auto& [text, want] : cases) {
    // A private, exactly sized copy, so that a read past its end shows under
    // ASan; it must come back unchanged.
    std::vector<char> buf;
    if (text != nullptr) buf.assign(text, text + std::strlen(text) + 1);
    int32_t sentinel[1] = {42};
    CmdCodeVecter out{-7, sentinel};
    const int rc = GetCmdCodefromString(out, text != nullptr ? buf.data() : nullptr);
    const std::string label = text != nullptr ? "'" + std::string(text) + "'" : "null";
    EXPECT_STREQ(text != nullptr ? buf.data() : nullptr, text) << label;
    if (rc != 1) {
      EXPECT_TRUE(want.empty() && rc == 0 && out.nCmdNum == -7 && out.pCmdCode == sentinel &&
                  sentinel[0] == 42)
          << label;
      continue;
    }
    EXPECT_EQ(std::vector<int32_t>(out.pCmdCode, out.pCmdCode + out.nCmdNum), want) << label;
    delete[] out.pCmdCode;
  }
  // Names of message types, and of the codes past the last one.
  EXPECT_STREQ(ToviGetMsgTypeString(30), "QUERY_RSP");
  EXPECT_STREQ(ToviGetMsgTypeString(31), "unknow");
}
