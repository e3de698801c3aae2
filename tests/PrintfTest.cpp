// printf-style tracing, the sub-module name wrapper, and the library's own
// short messages with their once-per-process console and log switches.
#include "ToviInterString.h"
#include "WriterTestSupport.h"

// An empty format is one of the cases under test.
#pragma GCC diagnostic ignored "-Wformat-zero-length"

using namespace tovitest;

// The text with the head of each of this thread's record lines, the time of
// day and the thread id, and any date line before it replaced by "@".
static std::string Marked(const std::string& text) {
  const std::string tid = Hex(toviport::CurrentThreadId()) + " ";
  const std::regex head(R"(\n(Current date.*\n)?\d\d:\d\d:\d\d\.\d{6}\.T)" + tid);
  return std::regex_replace("\n" + text, head, "\n@").substr(1);
}

// What the main writer's one file holds between its opening lines and its
// stop lines, record heads marked: the records and nothing else, if all is well.
static std::string Logged(const MgrRoot& setup) {
  const std::string all = ReadFile(setup.logs / ListDir(setup.logs.path()).at(0));
  const std::size_t from = all.find('\n', all.find("Thread handle output string")) + 1;
  return Marked(all.substr(from, all.find("thread handle output string exit") - from));
}

// The switches are read once per process, so each product configuration is
// tried in a death-test child of its own.
static bool Child(const std::string& productCfg, bool print, bool log) {
  // "MRB" is registered with no output at all, so the switches alone decide.
  MgrRoot setup("MRB_level=1111\nMRB_output=00\n", productCfg);
  if (!ToviDebugMgr::Instance()->Init("prt", "", setup.logs.path(), "", false, false)) return false;
  StdoutCapture out;
  ToviOutputFrmtString("hello %d", 1);
  // The switches are fixed by now; editing the file, here to the opposite of
  // what no file gives, must not count.
  WriteFile(setup.Conf("tovi.cfg"), "EnablePrint=1\nEnableLog=0\n");
  ToviOutputString_i("ready text");
  // 2046 characters pass whole; longer messages arrive as their first 2046.
  const std::string x(3000, 'x'), cut = "@MRB INFO: " + x.substr(0, 2046) + "\n";
  for (int n : {2046, 2047, 3000}) ToviOutputFrmtString("%s", x.substr(0, n).c_str());
  SetToviAppExit(true);
  ToviDebugMgr::Destroy();
  const std::string printed = Marked(out.Text()), logged = Logged(setup);
  const std::string all = "@MRB INFO: hello 1\n@MRB INFO: ready text\n" + cut + cut + cut +
                          "@MRB INFO: ===================SetToviAppExit (1)==================\n";
  std::fprintf(stderr, "printed:\n%s\nlogged:\n%s\n", printed.c_str(), logged.c_str());
  return ToviAppIsExit() && printed == (print ? all : "") && logged == (log ? all : "");
}

TEST(Printf, RefusalsDefaultsAndTheSubModuleWrapper) {
  MgrRoot setup("debug_level=1111\ndebug_output=01\n");  // levels 0 to 3 to the file only
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  const std::string s2045(2045, 's'), s2047(2047, 's'), s2048(2048, 'l');
  // A copy of a wrapper keeps its text when the original is assigned another.
  ToviInterString a(std::string("Alpha")), b(a);
  StdoutCapture out;
  mgr->Printf(LEVEL_INFO, "");  // not initialised: not even the failure line
  const bool initialised = mgr->Init("prt", "", setup.logs.path(), "", false, false);
  mgr->Printf("");
  mgr->Printf(LEVEL_INFO, b, "%s", s2048.c_str());
  mgr->Printf(LEVEL_INFO, "%s", s2047.c_str());
  mgr->Printf(LEVEL_WARN, b, "%d-%s", 7, s2045.c_str());
  const std::string silent = out.Text();
  // Only the overload with a level alone reports what it refuses.
  mgr->Printf(LEVEL_INFO, "%s", s2048.c_str());
  mgr->Printf(LEVEL_INFO, "");
  a = ToviInterString(std::string("Delta"));
  mgr->SetDefSubModuleName("X");
  mgr->SetDefLogLevel(LEVEL_ERROR);
  mgr->Printf("v=%d", 5);
  mgr->Printf(LEVEL_INFO, "w");
  // Level 5 is not in "debug"'s mask and Printf asks for no output of its
  // own: the record waits for the next assertion, then takes both outputs.
  mgr->Printf(static_cast<ToviLogLevel>(5), "held");
  mgr->Printf(LEVEL_INFO, a, "via a");
  mgr->Printf(LEVEL_INFO, b, "via b");
  mgr->Printf(LEVEL_ASSERT, "boom");
  ToviDebugMgr::Destroy();
  const std::string printed = Marked(out.Restore());

  ASSERT_TRUE(initialised);
  EXPECT_EQ(silent, "");
  // Standard output whole: two failure lines, then the held record.
  const std::string failure = R"(Printf, vsnprintf failed\. errno:-?\d+\n)";
  EXPECT_TRUE(std::regex_match(printed, std::regex(failure + failure + "@X held\n"))) << printed;
  // No default sub-module at first: the record text begins with the blank.
  EXPECT_EQ(Logged(setup), "@ INFO: " + s2047 + "\n@Alpha WARN: 7-" + s2045 +
                                "\n@X ERROR: v=5\n@X INFO: w\n@Delta INFO: via a\n"
                                "@Alpha INFO: via b\n@X held\n@X ASSERT: boom\n");
}

TEST(TraceLibraryOutput, SwitchesDecideOncePerProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // No file: printing off, logging on. Any number but 0 turns a switch on and
  // text that is no number reads as 0, each against its default; a switch
  // the file leaves out keeps its default.
  for (const auto& [cfg, print, log] :
       {std::tuple("", false, true), std::tuple("EnablePrint=2\nEnableLog=abc\n", true, false),
        std::tuple("EnablePrint=1\n", true, true)}) {
    EXPECT_EXIT(std::exit(Child(cfg, print, log) ? 0 : 1), ::testing::ExitedWithCode(0), "") << cfg;
  }
}

// The defaults may change while other threads print with them: every record
// carries one whole name and its level, never a torn one.
TEST(Printf, DefaultsChangeWhileOthersPrint) {
  MgrRoot setup("debug_level=1111\ndebug_output=01\n");
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  ASSERT_TRUE(mgr->Init("prt", "", setup.logs.path(), "", false, false));
  const std::string longName(40, 'N');  // beyond the short-string buffer
  std::thread setter([&] {
    for (int i = 0; i < 2000; ++i) {
      mgr->SetDefSubModuleName(i % 2 ? longName : "S");
      mgr->SetDefLogLevel(i % 2 ? LEVEL_WARN : LEVEL_ERROR);
    }
  });
  for (int i = 0; i < 2000; ++i) mgr->Printf("r%d", i);
  setter.join();
  ToviDebugMgr::Destroy();
  const std::regex record("@(|S|" + longName + ") (ERROR|WARN|INFO): r\\d+");
  const std::vector<std::string> lines = SplitLines(Logged(setup));
  EXPECT_EQ(lines.size(), 2000u);
  for (const std::string& line : lines) EXPECT_TRUE(std::regex_match(line, record)) << line;
}

// The writer formats most Printf calls later, from what the call copied:
// the file must hold the very bytes the call would have formatted, with what
// its arguments pointed to at the time of the call, and errno as it was.
TEST(Printf, TheFileHoldsWhatTheCallWouldHaveFormatted) {
  MgrRoot setup("debug_level=1111\ndebug_output=01\n");
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  ASSERT_TRUE(mgr->Init("prt", "", setup.logs.path(), "", false, false));
  const ToviInterString sub(std::string("F"));
  std::string want;
  char made[4096];
  char name[] = "before";
#define BOTH(...)                                                   \
  (std::snprintf(made, sizeof made, __VA_ARGS__), want += "@F INFO: ", \
   want += made, want += "\n", mgr->Printf(LEVEL_INFO, sub, __VA_ARGS__))
  BOTH("Backup storage speeds (min): %d MB/s", 42);
  BOTH("%-8.3f|%+e|%g|%a|%G", 3.14159, -2.5e-10, 1e100, 0.1, -0.0);
  BOTH("%Lf %.0Lf %Le", 1e30L, 2.5L, -1e-300L);
  BOTH("%lld %llu %zu %hhd %hd %#x %#o %8.3d %ld", LLONG_MIN, ULLONG_MAX, std::size_t{7}, 300, 70000, 255,
       0, -5, -1L);
  BOTH("%*d|%-*.*s|%c%%|%.0d|", 6, 42, 9, 3, "abcdef", 'z', 0);
  BOTH("%p %p %f %f", static_cast<void*>(nullptr), static_cast<void*>(made), 1.0 / 0.0, 0.0 / 0.0);
  BOTH("%2$s %1$s", "one", "two");
  BOTH("%ls", L"wide");
  BOTH("%s|%.3s", name, name);
  BOTH("cut%c here", 0);
  std::strcpy(name, "after!");
  errno = ENOENT;
  BOTH("%m");
  errno = 0;
#undef BOTH
  ToviDebugMgr::Destroy();
  EXPECT_EQ(Logged(setup), want);
}
