// printf-style tracing, the sub-module name wrapper, and the library's own
// short messages with their once-per-process console and log switches.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "ToviBaseUtil.h"
#include "ToviDebugMgr.h"
#include "ToviInterString.h"
#include "WriterTestSupport.h"
#include "port/ToviPort.h"

// An empty format is one of the cases under test.
#pragma GCC diagnostic ignored "-Wformat-zero-length"

using namespace tovitest;

namespace {

const char kInitName[] = "prt";

std::string Hex(uint32_t value) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%x", value);
  return buf;
}

std::string Mine(const std::string& text) {
  return Hex(toviport::CurrentThreadId()) + " " + text;
}

// The record lines of a text, each as "<tid hex> <record text>"; every other
// line goes to others, if given. A last line without its line feed is marked.
std::vector<std::string> Records(const std::string& text, std::vector<std::string>* others = nullptr) {
  static const char kShape[] = "dd:dd:dd.dddddd.T";
  const std::size_t shapeLen = sizeof kShape - 1;
  std::vector<std::string> records;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    std::string line = end == std::string::npos ? text.substr(start) + "<no line end>"
                                                : text.substr(start, end - start);
    start = end == std::string::npos ? text.size() : end + 1;
    bool shaped = line.size() > shapeLen;
    for (std::size_t i = 0; shaped && i < shapeLen; ++i) {
      shaped = kShape[i] == 'd' ? std::isdigit(static_cast<unsigned char>(line[i])) != 0
                                : line[i] == kShape[i];
    }
    const std::size_t blank = shaped ? line.find(' ', shapeLen) : std::string::npos;
    if (blank != std::string::npos && blank > shapeLen && line[shapeLen] != '0' &&
        line.find_first_not_of("0123456789abcdef", shapeLen) == blank) {
      records.push_back(line.substr(shapeLen));
    } else if (others != nullptr) {
      others->push_back(line);
    }
  }
  return records;
}

// The records of the main writer, which must have made exactly one file.
std::vector<std::string> MainRecords(const std::string& logs) {
  std::vector<std::string> files;
  for (const std::string& name : ListDir(logs)) {
    if (std::regex_match(name, std::regex(std::string(kInitName) + R"(\d{8}_\d{6}\.log)"))) {
      files.push_back(name);
    }
  }
  if (files.size() != 1) return {"<" + std::to_string(files.size()) + " log files>"};
  return Records(ReadFile(logs + files[0]));
}

// A fresh installation root with a debug configuration and, when given, a
// product configuration.
class PrintfSetup {
public:
  explicit PrintfSetup(const std::string& debugCfg, const char* productCfg = nullptr)
      : env_("TOVI_ROOT", root_.path().c_str()) {
    ToviDebugMgr::Destroy();
    std::filesystem::create_directories(root_ / "etc/conf");
    WriteFile(root_ / "etc/conf/default_debug.cfg", debugCfg);
    if (productCfg != nullptr) WriteFile(root_ / "etc/conf/tovi.cfg", productCfg);
  }
  ~PrintfSetup() { ToviDebugMgr::Destroy(); }
  PrintfSetup(const PrintfSetup&) = delete;
  PrintfSetup& operator=(const PrintfSetup&) = delete;

  bool Init() { return ToviDebugMgr::Instance()->Init(kInitName, "", Logs(), "", false, false); }
  std::string Root() const { return root_.path(); }
  std::string Logs() const { return root_ / "logs/"; }

private:
  TempDir root_;
  ScopedEnv env_;
};

const std::regex kFailureLine(R"(Printf, vsnprintf failed\. errno:-?\d+\n)");

}  // namespace

TEST(Printf, TextsThatDoNotFitAreRefusedWhole) {
  PrintfSetup setup("debug_level=1111\ndebug_output=01\n");
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  const std::string s2047(2047, 's');
  const std::string s2048(2048, 'l');
  const ToviInterString sub(std::string("Sub"));
  StdoutCapture out;

  // Not initialised: nothing is formatted, nothing is printed.
  mgr->Printf(LEVEL_INFO, "");
  mgr->Printf(LEVEL_INFO, "%s", s2048.c_str());
  mgr->Printf(LEVEL_INFO, "early");
  mgr->Printf(LEVEL_INFO, sub, "");
  mgr->Printf("");
  const std::string beforeInit = out.Text();

  // Each step's output is kept apart; the checks come once stdout is back.
  bool initialised = setup.Init();
  mgr->Printf(LEVEL_INFO, "%s", s2047.c_str());
  const std::string afterFitting = out.Text();
  mgr->Printf(LEVEL_INFO, "%s", s2048.c_str());
  const std::string afterLong = out.Text();
  mgr->Printf(LEVEL_INFO, "");
  const std::string afterEmpty = out.Text();
  // The other two overloads refuse silently.
  mgr->Printf("");
  mgr->Printf("%s", s2048.c_str());
  mgr->Printf(LEVEL_INFO, sub, "");
  mgr->Printf(LEVEL_INFO, sub, "%s", s2048.c_str());
  mgr->Printf(LEVEL_WARN, sub, "%s", s2047.c_str());
  mgr->Printf(LEVEL_WARN, sub, "%d-%s", 7, "x");
  ToviDebugMgr::Destroy();
  const std::string atEnd = out.Text();
  out.Restore();

  ASSERT_TRUE(initialised);
  EXPECT_EQ(beforeInit, "");
  EXPECT_EQ(afterFitting, "");
  EXPECT_TRUE(std::regex_match(afterLong, kFailureLine)) << afterLong;
  ASSERT_EQ(afterEmpty.compare(0, afterLong.size(), afterLong), 0);
  EXPECT_TRUE(std::regex_match(afterEmpty.substr(afterLong.size()), kFailureLine)) << afterEmpty;
  EXPECT_EQ(atEnd, afterEmpty);

  // No default sub-module yet: the record text begins with the blank.
  EXPECT_EQ(MainRecords(setup.Logs()),
            (std::vector<std::string>{Mine(" INFO: " + s2047), Mine("Sub WARN: " + s2047),
                                      Mine("Sub WARN: 7-x")}));
}

TEST(Printf, DefaultsAndTheSubModuleWrapper) {
  // "debug" logs levels 0 to 3 to the file only.
  PrintfSetup setup("debug_level=1111\ndebug_output=01\n");
  ASSERT_TRUE(setup.Init());
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();

  ToviInterString a(std::string("Alpha"));
  ToviInterString b(a);
  ToviInterString c(std::string("Gamma"));
  ToviInterString& self = (c = a);
  EXPECT_EQ(&self, &c);
  a = ToviInterString(std::string("Delta"));
  ToviInterString& alias = b;
  b = alias;
  EXPECT_EQ(a.str(), "Delta");
  EXPECT_EQ(b.str(), "Alpha");
  EXPECT_EQ(c.str(), "Alpha");

  StdoutCapture out;
  mgr->SetDefSubModuleName("X");
  mgr->SetDefLogLevel(LEVEL_ERROR);
  mgr->Printf("v=%d", 5);
  mgr->Printf(LEVEL_INFO, "w");
  // Level 5 is not in "debug"'s mask: Printf asks for no output of its own,
  // so the record waits for the next assertion.
  mgr->Printf(static_cast<ToviLogLevel>(5), "held");
  mgr->Printf(LEVEL_INFO, a, "via a");
  mgr->Printf(LEVEL_INFO, b, "via b");
  mgr->Printf(LEVEL_INFO, c, "via c");
  mgr->Printf(LEVEL_ASSERT, "boom");
  ToviDebugMgr::Destroy();
  const std::string printed = out.Text();
  out.Restore();
  // A held-back record comes out on both outputs, ahead of the assertion.
  std::vector<std::string> stray;
  EXPECT_EQ(Records(printed, &stray), std::vector<std::string>{Mine("X held")});
  EXPECT_TRUE(stray.empty()) << printed;

  EXPECT_EQ(MainRecords(setup.Logs()),
            (std::vector<std::string>{Mine("X ERROR: v=5"), Mine("X INFO: w"),
                                      Mine("Delta INFO: via a"), Mine("Alpha INFO: via b"),
                                      Mine("Alpha INFO: via c"), Mine("X held"),
                                      Mine("X ASSERT: boom")}));
}

// The console and log switches of the library's own messages are read once
// per process, so each case runs in a death-test child of its own, which
// checks what it wrote and reports through its exit code and standard error.
namespace {

int Fail(int code, const std::string& why) {
  std::fprintf(stderr, "%s\n", why.c_str());
  return code;
}

// "MRB" is registered with no output at all, so the switches alone decide.
const char kLibraryDebugCfg[] = "debug_level=1111\ndebug_output=00\nMRB_level=1111\nMRB_output=00\n";

std::string Joined(const std::vector<std::string>& lines) {
  std::string all;
  for (const std::string& line : lines) all += line + "\n";
  return all;
}

int NoProductFileChild() {
  PrintfSetup setup(kLibraryDebugCfg);
  if (!setup.Init()) return Fail(2, "Init failed");
  StdoutCapture out;
  ToviOutputFrmtString("hello %d", 1);
  // The switches are fixed by now; a later edit must not count.
  WriteFile(setup.Root() + "etc/conf/tovi.cfg", "EnablePrint=1\nEnableLog=0\n");
  ToviOutputString_i("ready text");
  const std::string a2046(2046, 'a');
  const std::string b2047 = std::string(2046, 'b') + "B";
  const std::string c3000 = std::string(2046, 'c') + std::string(954, 'C');
  ToviOutputFrmtString("%s", a2046.c_str());
  ToviOutputFrmtString("%s", b2047.c_str());
  ToviOutputFrmtString("%s", c3000.c_str());
  if (ToviAppIsExit()) return Fail(3, "exit flag set before SetToviAppExit");
  SetToviAppExit(true);
  const bool afterTrue = ToviAppIsExit();
  SetToviAppExit(false);
  const bool afterFalse = ToviAppIsExit();
  ToviDebugMgr::Destroy();
  const std::string printed = out.Text();
  out.Restore();

  if (!afterTrue || afterFalse) return Fail(4, "the exit flag does not follow SetToviAppExit");
  if (!printed.empty()) return Fail(5, "printed:\n" + printed);
  const std::vector<std::string> expected = {
      Mine("MRB INFO: hello 1"),
      Mine("MRB INFO: ready text"),
      Mine("MRB INFO: " + a2046),
      Mine("MRB INFO: " + std::string(2046, 'b')),
      Mine("MRB INFO: " + std::string(2046, 'c')),
      Mine("MRB INFO: ===================SetToviAppExit (1)=================="),
      Mine("MRB INFO: ===================SetToviAppExit (0)=================="),
  };
  const std::vector<std::string> logged = MainRecords(setup.Logs());
  if (logged != expected) return Fail(6, "logged:\n" + Joined(logged));
  return 0;
}

int SwitchValuesChild(const char* productCfg, bool expectPrinted, bool expectLogged) {
  PrintfSetup setup(kLibraryDebugCfg, productCfg);
  if (!setup.Init()) return Fail(2, "Init failed");
  StdoutCapture out;
  ToviOutputFrmtString("switch %s", "test");
  ToviDebugMgr::Destroy();
  const std::string printed = out.Text();
  out.Restore();

  const std::vector<std::string> one = {Mine("MRB INFO: switch test")};
  std::vector<std::string> stray;
  const std::vector<std::string> shown = Records(printed, &stray);
  if (!stray.empty()) return Fail(3, "printed:\n" + printed);
  if (shown != (expectPrinted ? one : std::vector<std::string>{})) {
    return Fail(4, "printed:\n" + printed);
  }
  const std::vector<std::string> logged = MainRecords(setup.Logs());
  if (logged != (expectLogged ? one : std::vector<std::string>{})) {
    return Fail(5, "logged:\n" + Joined(logged));
  }
  return 0;
}

}  // namespace

TEST(TraceLibraryOutput, SwitchesDecideOncePerProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(std::exit(NoProductFileChild()), ::testing::ExitedWithCode(0), "");
  EXPECT_EXIT(std::exit(SwitchValuesChild("EnablePrint=abc\nEnableLog=2\n", false, true)),
              ::testing::ExitedWithCode(0), "");
  EXPECT_EXIT(std::exit(SwitchValuesChild("EnablePrint=1\nEnableLog=0\n", true, false)),
              ::testing::ExitedWithCode(0), "");
  EXPECT_EXIT(std::exit(SwitchValuesChild("EnablePrint=1\n", true, true)),
              ::testing::ExitedWithCode(0), "");
}
