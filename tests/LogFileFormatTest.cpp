// What lands in a log file, byte for byte: the head of a file, the record
// lines, the writer thread's and the stop sequence's lines, the close line,
// the date line and the byte-order mark.
#include "WriterTestSupport.h"

using namespace tovitest;

const char kTime[] = R"(\d\d:\d\d:\d\d\.\d{6})";
const char kStamp[] = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6})";

// Matches each line against its pattern; reports the first difference.
static void ExpectLines(const std::vector<std::string>& lines, const std::vector<std::string>& patterns) {
  ASSERT_EQ(lines.size(), patterns.size()) << ::testing::PrintToString(lines);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_TRUE(std::regex_match(lines[i], std::regex(patterns[i])))
        << "line " << i << ": '" << lines[i] << "' !~ /" << patterns[i] << "/";
  }
}

TEST(LogFileFormat, FirstFileFromCreationToClose) {
  ScopedEnv locale("TOVI_LOCALE", nullptr);
  TempDir dir;
  const std::string logs = dir / "logs";  // the last level is created by the writer
  // 2048 characters of text pass, and 255 of a sub-module's name.
  std::string huge(10000, 'h');
  huge[2048] = 'X';
  const CountingAsn kept("KEPT");
  const int live = CountingAsn::Live(), clones = CountingAsn::Clones();
  StdoutCapture out;
  auto writer = NewWriter(logs, "p", "build 7", 10, 1048576);
  const auto log = [&](const std::string& sub, int level, const char* text,
                       const AsnType* value = nullptr, bool print = false, bool file = true) {
    return writer->AddLog(sub, static_cast<ToviLogLevel>(level), text, value, print, file);
  };
  auto asn = std::make_unique<CountingAsn>("VALUE{1}");
  EXPECT_TRUE(log("MRB", LEVEL_INFO, "abc") && log("MRB", LEVEL_ERROR, "abc\n") &&
              log("MRB", LEVEL_WARN, "") && log("", LEVEL_INFO, "x") && log("MRB", 5, "five") &&
              log(std::string(300, 'n'), LEVEL_INFO, huge.c_str()) &&
              log("MRB", LEVEL_INFO, "with asn", asn.get()));
  asn.reset();  // the record carries its own copy
  // The last one is held back for an assertion that never comes: its copy
  // goes at the stop.
  EXPECT_TRUE(log("MRB", LEVEL_INFO, "console only", nullptr, true, false) &&
              log("MRB", LEVEL_INFO, "both", &kept, true, true) &&
              log("MRB", LEVEL_WARN, "held", &kept, false, false));
  EXPECT_FALSE(log("MRB", LEVEL_INFO, nullptr, &kept, true, true));
  writer.reset();
  const std::string printed = out.Restore();
  EXPECT_EQ(CountingAsn::Clones() - clones, 3) << "no clone for a refused call";
  EXPECT_EQ(CountingAsn::Live(), live) << "every clone freed";

  const std::vector<std::string> files = ListDir(logs);
  ASSERT_TRUE(files.size() == 1 && std::regex_match(files[0], std::regex(R"(p\d{8}_\d{6}\.log)")));
  const std::string& name = files[0];
  // The creation line comes first, with no byte-order mark before it, and
  // shows the instant that named the file.
  std::vector<std::string> lines = SplitLines(ReadFile(logs + "/" + name));
  const std::string stampOfName = name.substr(1, 4) + "-" + name.substr(5, 2) + "-" +
                                  name.substr(7, 2) + " " + name.substr(10, 2) + ":" +
                                  name.substr(12, 2) + ":" + name.substr(14, 2);
  // Whether the first record gets a date line depends on what this process
  // logged before; the fresh-process test below checks it.
  if (lines.size() > 3 && lines[3].rfind("Current date&time:", 0) == 0)
    lines.erase(lines.begin() + 3);
  const std::string h = std::string(kTime) + "\\.T" + Hex(toviport::CurrentThreadId()) + " ";
  ExpectLines(lines, {
      "File create at time " + stampOfName + R"(\. Current ospid is )" +
          std::to_string(toviport::CurrentProcessId()),
      "build 7This is the first log file",
      "Thread handle output string is 0x[0-9a-f]+",
      h + "MRB INFO: abc",
      h + "MRB ERROR: abc",
      h + "MRB WARN: ",
      h + " INFO: x",
      h + "MRB five",
      h + "n{255} INFO: h{2048}",
      h + "MRB INFO: with asn",
      "ASN Trace:",
      R"(VALUE\{1\})",
      h + "MRB INFO: both",
      "ASN Trace:",
      "KEPT",
      "thread handle output string exit",
      std::string(kStamp) + R"( about to clear m_DiscardQueue\(1\))",
      std::string(kStamp) + R"( about to clear m_OutputQueue\(0\))",
      std::string(kStamp) + " after m_OutputQueue cleared",
      R"(File close at \S* ?\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)",
  });
  // The console gets the record lines, never a date line.
  ExpectLines(SplitLines(printed),
              {h + "MRB INFO: console only", h + "MRB INFO: both", "ASN Trace:", "KEPT"});
}

// Runs in a process in which nothing has been logged and the locale has not
// been looked at yet (a death-test child); reports through its exit code and
// standard error.
static int LocaleChild(const char* locale, bool expectUtf8) {
  const auto fail = [](const std::string& s) { return std::fprintf(stderr, "%s\n", s.c_str()), 1; };
  locale != nullptr ? ::setenv("TOVI_LOCALE", locale, 1) : ::unsetenv("TOVI_LOCALE");
  const bool decided = TOVIIsGlobalVersion();
  ::setenv("TOVI_LOCALE", expectUtf8 ? "other" : "UTF-8", 1);
  // Asked again after the variable changed: the first decision stands.
  if (decided != expectUtf8 || TOVIIsGlobalVersion() != expectUtf8) return fail("locale decision");

  // The first record that any writer handles gets the date line, a later one
  // in another writer's file on the same day does not.
  TempDir dir;
  {
    auto a = NewWriter(dir / "a", "a");
    a->AddLog("S", LEVEL_INFO, "first", nullptr, false, true);
    a->AddLog("S", LEVEL_INFO, "second", nullptr, false, true);
  }
  NewWriter(dir / "b", "b")->AddLog("S", LEVEL_INFO, "third", nullptr, false, true);
  const std::string a = OnlyLog(dir / "a"), b = OnlyLog(dir / "b");
  const std::regex dated(std::string("\nCurrent date&time:") + kStamp + "\n" + kTime +
                         R"(\.T[0-9a-f]+ S INFO: first\n)" + kTime +
                         R"(\.T[0-9a-f]+ S INFO: second\n)");
  if (!std::regex_search(a, dated)) return fail("first file:\n" + a);
  if (b.find("Current date&time:") != std::string::npos || b.find("S INFO: third\n") > b.size())
    return fail("second writer:\n" + b);

  FILE* f = std::fopen((dir / "handle.txt").c_str(), "w");
  TOVIInsertBOM(f);
  TOVIInsertBOM(static_cast<FILE*>(nullptr));
  std::fclose(f);
  const std::string bom = expectUtf8 ? "\xEF\xBB\xBF" : "";
  if (ReadFile(dir / "handle.txt") != bom) return fail("handle form wrote the wrong bytes");
  if (a.rfind(bom + "File create at time ", 0) != 0) return fail("log file head: " + a);
  return 0;
}

TEST(LogFileFormat, FreshProcessDateLineAndByteOrderMark) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // Only the exact value turns the mark on.
  for (const char* locale : {"UTF-8", "utf-8", "UTF-8 ", static_cast<const char*>(nullptr)}) {
    const bool utf8 = locale != nullptr && std::string(locale) == "UTF-8";
    EXPECT_EXIT(std::exit(LocaleChild(locale, utf8)), ::testing::ExitedWithCode(0), "") << utf8;
  }
}
