// What Init makes of the debug configuration file and the product
// configuration file: the masks of every sub-module, and the limits that the
// writers receive.
#include <gtest/gtest.h>

#include <bitset>
#include <cstdio>
#include <filesystem>
#include <initializer_list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "ToviDebugMgr.h"
#include "WriterTestSupport.h"

using namespace tovitest;

namespace {

typedef std::bitset<32> Mask;
typedef std::map<std::string, std::pair<Mask, Mask>> ModuleMap;

// A mask from the numbers of its set bits, so that no test has to think
// about which end of a string std::bitset counts from.
Mask Bits(std::initializer_list<int> bits) {
  Mask mask;
  for (int bit : bits) mask.set(static_cast<std::size_t>(bit));
  return mask;
}

// Every test leaves the process without a manager.
struct ManagerGuard {
  ~ManagerGuard() { ToviDebugMgr::Destroy(); }
};

// An installation root of its own, holding the default debug file and the
// product file when the test gives them.
struct Installation {
  TempDir root;
  ScopedEnv env{"TOVI_ROOT", root.path().c_str()};
  Installation() { std::filesystem::create_directories(Conf()); }
  std::string Conf() const { return root / "etc/conf/"; }
  std::string DebugFile() const { return Conf() + "default_debug.cfg"; }
  std::string ProductFile() const { return Conf() + "tovi.cfg"; }
};

// The registry right after a trace-off Init, which reads the configuration
// and creates no writer.
ModuleMap RegistryAfterInit(const std::string& debugCfgFile = "") {
  TempDir logs;
  ManagerGuard guard;
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  ModuleMap modules;
  if (!mgr->Init("cfg_", debugCfgFile, logs.path(), "", false, true)) return modules;
  mgr->GetAllModuleInfo(modules);
  return modules;
}

int CountGz(const std::string& dir) {
  int n = 0;
  for (const std::string& name : ListDir(dir)) n += EndsWith(name, ".log.gz") ? 1 : 0;
  return n;
}

// Compressed log files of an earlier run; a writer prunes them when its
// thread starts.
void PlantArchives(const std::string& dir, const std::string& prefix, int count) {
  for (int i = 0; i < count; ++i) {
    char stamp[32];
    std::snprintf(stamp, sizeof stamp, "20010101_%02d%02d%02d", i / 3600, i / 60 % 60, i % 60);
    WriteFile(dir + prefix + stamp + ".log.gz", "old");
  }
}

// The text of every plain log file in dir.
std::string PlainLogs(const std::string& dir) {
  std::string all;
  for (const std::string& name : ListDir(dir)) {
    if (EndsWith(name, ".log")) all += ReadFile(dir + name);
  }
  return all;
}

}  // namespace

TEST(DebugConfig, ExampleFilesGiveListedMasksAndLimits) {
  Installation inst;
  TempDir logs;
  ManagerGuard guard;
  WriteFile(inst.DebugFile(),
            "debug_level=1110\ndebug_output=0100\nMRB_level=1\nMRB_output=11\n"
            "nEachFileMaxSize=10\n");
  WriteFile(inst.ProductFile(), "nMaxFileNum=20\n");

  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  ASSERT_TRUE(mgr->Init("example_", "", logs.path(), "", false, false));
  ModuleMap modules;
  ASSERT_TRUE(mgr->GetAllModuleInfo(modules));
  const ModuleMap expected{{"debug", {Bits({0, 1, 2}), Bits({1})}},
                           {"MRB", {Bits({0}), Bits({0, 1})}}};
  EXPECT_EQ(modules, expected);

  // nMaxFileNum came from the product file: beside the main writer the table
  // takes 20 application writers and refuses the 21st.
  for (int i = 0; i < 20; ++i) {
    const std::string app = "app" + std::to_string(i);
    EXPECT_TRUE(mgr->AppTrace("MRB", LEVEL_INFO, "x", nullptr, false, false, app)) << app;
  }
  EXPECT_FALSE(mgr->AppTrace("MRB", LEVEL_INFO, "x", nullptr, false, false, "app20"));
}

TEST(DebugConfig, MissingEmptyAndInvalidValues) {
  struct Case {
    const char* what;
    std::string debugFile;    // empty: no default debug file
    std::string productFile;  // empty: no product file
    ModuleMap expected;
  };
  const std::pair<Mask, Mask> defaults{Bits({0, 1}), Bits({1})};
  // 40 characters: whatever stands in front of the last 32 is ignored.
  const std::string longValue = "a b=1 0x" + std::string("1") + std::string(31, '0');
  const std::string bit31 = "1" + std::string(30, '0') + "1";
  const std::vector<Case> cases{
      {"no files", "", "", {{"debug", defaults}}},
      {"empty level", "debug_level=\n", "", {{"debug", {Bits({}), Bits({1})}}}},
      {"blank inside", "debug_level=1 1\n", "", {{"debug", defaults}}},
      {"only the last 32 characters count", "debug_level=" + longValue + "\n", "",
       {{"debug", {Bits({0}), Bits({1})}}}},
      {"invalid output alone", "X_output=abc\n", "",
       {{"debug", defaults}, {"X", {Bits({0, 1}), Bits({0, 1})}}}},
      {"level alone", "X_level=0001\n", "",
       {{"debug", defaults}, {"X", {Bits({3}), Bits({1})}}}},
      // The "_level" key replaces the whole "debug" entry; the product file's
      // output never comes back, since sub-module keys are not read there.
      {"debug_output only in the product file", "debug_level=1110\n", "debug_output=1000\n",
       {{"debug", {Bits({0, 1, 2}), Bits({1})}}}},
      {"product file for what the debug file lacks", "X_level=1\n",
       "debug_level=0010\ndebug_output=1\nY_level=1\n",
       {{"debug", {Bits({2}), Bits({0})}}, {"X", {Bits({0}), Bits({1})}}}},
      // Values above 4369 keep their four lowest bits; 4369 and below stay.
      {"mask bounds",
       "A_level=1000100010001\nA_output=1000100010001\n"
       "B_level=0100100010001\nB_output=0100100010001\n"
       "C_level=00001\nD_level=" + bit31 + "\n",
       "",
       {{"debug", defaults},
        {"A", {Bits({0, 4, 8, 12}), Bits({0, 4, 8, 12})}},
        {"B", {Bits({1}), Bits({1})}},
        {"C", {Bits({4}), Bits({1})}},
        {"D", {Bits({0}), Bits({1})}}}},
  };
  for (const Case& c : cases) {
    Installation inst;
    if (!c.debugFile.empty()) WriteFile(inst.DebugFile(), c.debugFile);
    if (!c.productFile.empty()) WriteFile(inst.ProductFile(), c.productFile);
    EXPECT_EQ(RegistryAfterInit(), c.expected) << c.what;
  }

  {
    // A given file that does not exist: the default debug file is read.
    Installation inst;
    WriteFile(inst.DebugFile(), "debug_level=0001\n");
    EXPECT_EQ(RegistryAfterInit(inst.Conf() + "absent.cfg"),
              (ModuleMap{{"debug", {Bits({3}), Bits({1})}}}));
  }
  {
    // The product file given as the debug file is read alone; the default
    // debug file stays out of it.
    Installation inst;
    WriteFile(inst.DebugFile(), "debug_level=0001\nZ_level=1\n");
    WriteFile(inst.ProductFile(), "debug_level=01\nY_output=01\n");
    EXPECT_EQ(RegistryAfterInit(inst.ProductFile()),
              (ModuleMap{{"debug", {Bits({1}), Bits({1})}}, {"Y", {Bits({0, 1}), Bits({1})}}}));
  }
}

TEST(DebugConfig, LimitsReachTheWriters) {
  struct Case {
    const char* debugFile;
    const char* productFile;
    const char* initName;
    int appWriters;  // application writers the table takes beside the main one
    int held;        // records still held back when the assertion comes
    int archives;    // compressed files left of 60 planted ones
  };
  const Case cases[] = {
      // The debug file wins over the product file; a zip count of 0 is out
      // of range.
      {"nFiltLogBufSize=3\nnEachProcessMaxZipNum=0\n", "nMaxFileNum=2\nnFiltLogBufSize=7\n",
       "limits_", 2, 3, 10},
      // 1001 is out of range; "abc" is 0, which nMaxFileNum keeps; this one
      // Init name keeps five times the archives.
      {"nFiltLogBufSize=1001\nnMaxFileNum=abc\n", "", "TOVIMrb_p2_", 0, 100, 50},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.initName);
    Installation inst;
    TempDir logs;
    ManagerGuard guard;
    WriteFile(inst.DebugFile(), c.debugFile);
    WriteFile(inst.ProductFile(), c.productFile);
    PlantArchives(logs.path(), c.initName, 60);
    ToviDebugMgr* mgr = ToviDebugMgr::Instance();
    ASSERT_TRUE(mgr->Init(c.initName, "", logs.path(), "", false, false));
    for (int i = 0; i <= c.appWriters; ++i) {
      EXPECT_EQ(mgr->AppTrace("debug", LEVEL_INFO, "x", nullptr, false, false,
                              "app" + std::to_string(i)),
                i < c.appWriters);
    }
    const int traced = c.held + 50;
    {
      // Held-back records come out on the console as well.
      StdoutCapture quiet;
      for (int i = 0; i < traced; ++i) {
        const std::string text = "held-" + std::to_string(i) + ";";
        ASSERT_TRUE(mgr->Trace("debug", LEVEL_INFO, text.c_str(), nullptr, false, false));
      }
      ASSERT_TRUE(mgr->Trace("debug", LEVEL_ASSERT, "boom", nullptr, false, true));
      ToviDebugMgr::Destroy();
    }
    EXPECT_EQ(CountGz(logs.path()), c.archives);
    const std::string text = PlainLogs(logs.path());
    EXPECT_EQ(text.find("held-" + std::to_string(traced - c.held - 1) + ";"), std::string::npos);
    EXPECT_NE(text.find("held-" + std::to_string(traced - c.held) + ";"), std::string::npos);
    EXPECT_NE(text.find("held-" + std::to_string(traced - 1) + ";"), std::string::npos);
  }
}
