// The key=value reader: trimming, line splitting, lookups and the loader,
// on real files, including files that no one should have to read.
#include "WriterTestSupport.h"
#include "baseutil/ConfigReader.h"

using tovitest::TempDir;
using tovitest::WriteFile;
using Items = std::map<std::string, std::string>;
using namespace std::string_literals;

// The value for key, or "<none>"; the buffer lives on the heap so that a
// missing terminator or an overrun shows under ASan.
static std::string Lookup(const std::string& file, const char* key) {
  std::vector<char> buf(2048, '\x7f');
  int len = static_cast<int>(buf.size());
  return ToviGetCfgString(key, buf.data(), len, file.c_str()) ? std::string(buf.data()) : "<none>";
}

TEST(CfgLookup, FollowsTheLineRules) {
  TempDir dir;
  const std::string file = dir / "tovi.cfg";
  WriteFile(file, "  # c=1\nnote=1 # note\nk=v=w\n key 1 = \t value with blanks \t\r\n"
                  "dup=1\ndup=2\n\n   \t \nten=0123456789\nkey=1\na\0b=1\nx=2\0junk\n"
                  "n=12abc\nna=abc\nneg=-42\nhuge=99999999999\nlone=a\rb\nlast=end"s);
  // Comments, trailing text, "=" in values, blanks and tabs, CR LF,
  // duplicates, a lone CR, NUL bytes, a last line without LF; keys match
  // exactly and untrimmed.
  const std::pair<const char*, const char*> expected[] = {
      {"c", "<none>"}, {"# c", "<none>"}, {"note", "1 # note"}, {"k", "v=w"}, {"x", "2"},
      {"key 1", "value with blanks"},     {"dup", "1"},         {"lone", "a\rb"},
      {"last", "end"}, {"Key", "<none>"}, {" key", "<none>"},   {"key", "1"}, {"a", "<none>"}};
  for (const auto& e : expected) EXPECT_EQ(Lookup(file, e.first), e.second) << e.first;
  EXPECT_EQ(Lookup(dir.path(), "k"), "<none>") << "a directory";
  ToviStrTrim(nullptr);

  // The caller's buffer must hold the value and its NUL; a failed lookup
  // reports length 0 and leaves the buffer untouched.
  char small[10] = {'Z'};
  for (const auto& [len, path] : std::vector<std::pair<int, std::string>>{
           {10, file}, {-5, file}, {10, dir / "absent.cfg"}}) {
    int n = len;
    EXPECT_TRUE(!ToviGetCfgString("ten", small, n, path.c_str()) && n == 0 && small[0] == 'Z');
  }
  std::vector<char> eleven(11);
  int len = 11;
  EXPECT_TRUE(ToviGetCfgString("ten", eleven.data(), len, file.c_str()) &&
              std::string(eleven.data()) == "0123456789" && len == 10);

  // A failed conversion is 0, an overflow saturates, a missing key or file
  // leaves the caller's value alone.
  int n = 7;
  EXPECT_TRUE(!ToviGetCfgInt("missing", n, file.c_str()) && !ToviGetCfgInt("k", n, nullptr) && n == 7);
  for (const auto& [key, value] : std::vector<std::pair<const char*, int>>{
           {"n", 12}, {"na", 0}, {"neg", -42}, {"huge", 2147483647}})
    EXPECT_TRUE(ToviGetCfgInt(key, n = 7, file.c_str()) && n == value) << key << " gave " << n;
}

TEST(CfgLookup, LinesKeysAndValuesAreCutAtTheirBounds) {
  TempDir dir;
  // 2040 blanks and "k=abcdefghij": the first 2047 characters hold "k=abcde",
  // and the line after the long one is never read, by lookups or the loader.
  const std::string cut = dir / "cut.cfg";
  WriteFile(cut, std::string(2040, ' ') + "k=abcdefghij\nafter=1\n");
  EXPECT_EQ(Lookup(cut, "k") + Lookup(cut, "after"), "abcde<none>");
  Items items;
  EXPECT_TRUE(LoadCfgFileToMap(items, cut, ""));
  EXPECT_EQ(items, (Items{{"k", "abcde"}}));
  // Exactly 2047 characters followed by CR LF is a whole line.
  WriteFile(dir / "fits.cfg", std::string(2040, ' ') + "k2=abcd\r\nnext=1\n");
  EXPECT_EQ(Lookup(dir / "fits.cfg", "k2") + Lookup(dir / "fits.cfg", "next"), "abcd1");

  // A key is cut to 255 characters, then trimmed, so the text behind the
  // blanks is gone; a value is trimmed, then cut to 1791.
  const std::string a(250, 'a'), b(40, 'b');
  WriteFile(dir / "parts.cfg", a + std::string(10, ' ') + b + "=x\n" + a + "  " + b + "=y\n" +
                                   "no equals sign\n=" + std::string(10, ' ') +
                                   std::string(2036, 'v') + "\n");
  items.clear();
  EXPECT_TRUE(LoadCfgFileToMap(items, dir / "parts.cfg", ""));
  EXPECT_EQ(items, (Items{{a, "x"}, {a + "  bbb", "y"}, {"", std::string(1791, 'v')}}));
}
