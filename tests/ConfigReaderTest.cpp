// The key=value reader: trimming, line splitting, lookups and the loader,
// on real files, including files that no one should have to read.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "ToviBaseUtil.h"
#include "TestSupport.h"
#include "baseutil/ConfigReader.h"

using tovitest::TempDir;
using tovitest::WriteFile;

namespace {

std::string Trimmed(const char* text) {
  std::vector<char> buf(text, text + std::strlen(text) + 1);
  ToviStrTrim(buf.data());
  return std::string(buf.data());
}

// Looks a key up with a caller buffer of the given size; returns the value
// or "<none>", and the length reported through len.
std::string Lookup(const std::string& file, const char* key, int size = 2048, int* lenOut = nullptr) {
  std::vector<char> buf(static_cast<std::size_t>(size > 0 ? size : 1), '\x7f');
  buf.back() = '\0';
  int len = size;
  const bool found = ToviGetCfgString(key, buf.data(), len, file.c_str());
  if (lenOut != nullptr) *lenOut = len;
  return found ? std::string(buf.data()) : std::string("<none>");
}

}  // namespace

TEST(Trim, BlanksAreSpaceAndTabOnly) {
  const std::pair<const char*, const char*> trims[] = {
      {"   ", ""}, {"\tab x ", "ab x"}, {"ab\r", "ab\r"}, {"", ""}, {" \t x\ty \t ", "x\ty"}};
  for (const auto& t : trims) EXPECT_EQ(Trimmed(t.first), t.second) << t.first;
  ToviStrTrim(nullptr);

  EXPECT_EQ(TrimString(" \t\r\n", " \t\r\n"), "");
  EXPECT_EQ(TrimString("ab", ""), "ab");
  EXPECT_EQ(TrimString(" ab ", nullptr), " ab ");
  EXPECT_EQ(TrimString("\n a b\r\n", " \t\r\n"), "a b");
}

TEST(SplitCfgLine, KeysAreCutThenTrimmedValuesTrimmedThenCut) {
  char key[256];
  char value[1792];
  char empty[] = "=only value";
  ASSERT_EQ(SplitCfgLine(key, value, empty), 1);
  EXPECT_STREQ(key, "");
  EXPECT_STREQ(value, "only value");
  char none[] = "no equals sign";
  EXPECT_EQ(SplitCfgLine(key, value, none), -1);
  EXPECT_EQ(SplitCfgLine(nullptr, value, empty), -1);
  EXPECT_EQ(SplitCfgLine(key, nullptr, empty), -1);
  EXPECT_EQ(SplitCfgLine(key, value, nullptr), -1);

  // The blanks that fall inside the 255-character cut are trimmed away, the
  // text behind them is gone.
  std::string line = std::string(250, 'a') + std::string(10, ' ') + std::string(40, 'b') + "=" +
                     std::string(2000, 'v');
  ASSERT_EQ(SplitCfgLine(key, value, line.data()), 1);
  EXPECT_EQ(std::string(key), std::string(250, 'a'));
  EXPECT_EQ(std::string(value), std::string(1791, 'v'));
}

TEST(CfgLookup, FollowsTheLineRules) {
  TempDir dir;
  const std::string file = dir / "tovi.cfg";
  WriteFile(file,
            "  # c=1\n"
            "note=1 # note\n"
            "k=v=w\n"
            " key 1 =  value with blanks  \r\n"
            "dup=1\n"
            "dup=2\n"
            "\n"
            "   \t \n"
            "ten=0123456789\n"
            "key=1\n"
            "n=12abc\n"
            "na=abc\n"
            "neg=-42\n"
            "huge=99999999999\n"
            "lone=a\rb\n"
            "last=end");

  // Comments, trailing text, "=" in values, blanks, CR LF, duplicates, a
  // lone CR, a last line without LF; keys match exactly and untrimmed.
  const std::pair<const char*, const char*> expected[] = {
      {"c", "<none>"},    {"# c", "<none>"}, {"note", "1 # note"}, {"k", "v=w"},
      {"key 1", "value with blanks"},        {"dup", "1"},         {"lone", "a\rb"},
      {"last", "end"},    {"Key", "<none>"}, {" key", "<none>"},   {"key", "1"}};
  for (const auto& e : expected) EXPECT_EQ(Lookup(file, e.first), e.second) << e.first;

  // The caller's buffer must hold the value and its NUL; a failed lookup
  // reports length 0 and leaves the buffer untouched.
  int len = 10;
  char small[10] = {'Z'};
  EXPECT_FALSE(ToviGetCfgString("ten", small, len, file.c_str()));
  EXPECT_EQ(len, 0);
  EXPECT_EQ(small[0], 'Z');
  EXPECT_EQ(Lookup(file, "ten", 11, &len), "0123456789");
  EXPECT_EQ(len, 10);
  len = -5;
  EXPECT_FALSE(ToviGetCfgString("ten", small, len, file.c_str()));
  EXPECT_EQ(len, 0);
  const std::string absent = dir / "absent.cfg";
  const bool refused[] = {ToviGetCfgString(nullptr, small, len = 10, file.c_str()),
                          ToviGetCfgString("k", nullptr, len = 10, file.c_str()),
                          ToviGetCfgString("k", small, len = 10, nullptr),
                          ToviGetCfgString("k", small, len = 10, absent.c_str())};
  for (bool r : refused) EXPECT_FALSE(r);
  EXPECT_EQ(len, 0);
  EXPECT_EQ(small[0], 'Z');

  const std::pair<const char*, int> numbers[] = {{"n", 12}, {"na", 0}, {"neg", -42},
                                                 {"huge", 2147483647}};
  for (const auto& e : numbers) {
    int n = 7;
    EXPECT_TRUE(ToviGetCfgInt(e.first, n, file.c_str()));
    EXPECT_EQ(n, e.second) << e.first;
  }
  int n = 7;
  EXPECT_FALSE(ToviGetCfgInt("missing", n, file.c_str()));
  EXPECT_FALSE(ToviGetCfgInt("k", n, nullptr));
  EXPECT_EQ(n, 7);
}

TEST(CfgLookup, OverlongLineEndsTheFile) {
  TempDir dir;
  // 2040 blanks and "k=abcdefghij": the first 2047 characters hold "k=abcde",
  // and the line after the long one is never read.
  const std::string cut = dir / "cut.cfg";
  WriteFile(cut, std::string(2040, ' ') + "k=abcdefghij\nafter=1\n");
  EXPECT_EQ(Lookup(cut, "k"), "abcde");
  EXPECT_EQ(Lookup(cut, "after"), "<none>");

  // Exactly 2047 characters followed by CR LF is a whole line.
  const std::string fits = dir / "fits.cfg";
  WriteFile(fits, std::string(2040, ' ') + "k2=abcd\r\nnext=1\n");
  EXPECT_EQ(Lookup(fits, "k2"), "abcd");
  EXPECT_EQ(Lookup(fits, "next"), "1");

  // The loader stops at the same place and still reports success.
  std::map<std::string, std::string> items;
  EXPECT_TRUE(LoadCfgFileToMap(items, cut, ""));
  EXPECT_EQ(items, (std::map<std::string, std::string>{{"k", "abcde"}}));
}

TEST(CfgLookup, HostileFilesAreReadSafely) {
  TempDir dir;
  std::map<std::string, std::string> items;
  items["kept"] = "x";

  // A directory in place of the file cannot be opened.
  int len = 32;
  char buf[32] = "untouched";
  EXPECT_FALSE(ToviGetCfgString("k", buf, len, dir.path().c_str()));
  EXPECT_EQ(len, 0);
  EXPECT_FALSE(LoadCfgFileToMap(items, dir.path(), ""));
  EXPECT_FALSE(LoadCfgFileToMap(items, dir / "absent.cfg", ""));

  // NUL bytes end a line's text where they stand, and the next line is read.
  const std::string nul = dir / "nul.cfg";
  WriteFile(nul, std::string("a\0b=1\nx=2\0junk\ny=\0\n", 20));
  EXPECT_EQ(Lookup(nul, "x"), "2");
  EXPECT_EQ(Lookup(nul, "y"), "");
  EXPECT_EQ(Lookup(nul, "a"), "<none>");

  // Random bytes in short lines, then an item: every line is read safely
  // and the item after the garbage is still found.
  std::mt19937 rng(42);
  std::string garbage;
  for (int i = 0; i < 5000; ++i) {
    garbage.push_back(static_cast<char>(rng() & 0xff));
    if (i % 50 == 0) garbage.push_back('\n');
  }
  WriteFile(dir / "short.cfg", garbage + "\nzz=9\n");
  EXPECT_EQ(Lookup(dir / "short.cfg", "zz"), "9");
  EXPECT_TRUE(LoadCfgFileToMap(items, dir / "short.cfg", "_level"));

  WriteFile(dir / "empty.cfg", "");
  EXPECT_EQ(Lookup(dir / "empty.cfg", "zz"), "<none>");
  EXPECT_TRUE(LoadCfgFileToMap(items, dir / "empty.cfg", ""));
  EXPECT_EQ(items.count("kept"), 1u);
}

TEST(CfgLoader, KeepsTheLastAndCutsAtTheKeyPart) {
  TempDir dir;
  const std::string file = dir / "debug.cfg";
  WriteFile(file,
            "  MRB_level = 1100 \n"
            "debug_level=1100\n"
            "MRB_output=0100\n"
            "_level=1\n"
            " x _level=01\n"  // the line is trimmed, the blank before the key part stays
            "a_level_level=0\n"
            "dup_level=1\n"
            "dup_level=2\n"
            "# skipped_level=1\n"
            "plain=3\n");

  std::map<std::string, std::string> items{{"untouched", "u"}, {"MRB", "old"}};
  ASSERT_TRUE(LoadCfgFileToMap(items, file, "_level"));
  const std::map<std::string, std::string> expected{
      {"untouched", "u"}, {"MRB", "1100"}, {"debug", "1100"}, {"", "1"},
      {"x ", "01"},       {"a", "0"},      {"dup", "2"}};
  EXPECT_EQ(items, expected);

  std::map<std::string, std::string> all;
  ASSERT_TRUE(LoadCfgFileToMap(all, file, ""));
  EXPECT_EQ(all.size(), 8u);
  EXPECT_EQ(all["dup_level"], "2");
  EXPECT_EQ(all["MRB_output"], "0100");
  EXPECT_EQ(all.count("# skipped_level"), 0u);

  std::map<std::string, std::string> none{{"k", "v"}};
  EXPECT_TRUE(LoadCfgFileToMap(none, "", "_level"));
  EXPECT_EQ(none, (std::map<std::string, std::string>{{"k", "v"}}));
}
