// What Init makes of the debug configuration file and the product
// configuration file: the masks of every sub-module, and the limits that the
// writers receive.
#include "WriterTestSupport.h"

using namespace tovitest;

typedef std::pair<std::bitset<32>, std::bitset<32>> Masks;
typedef std::map<std::string, Masks> ModuleMap;

// The registry after a trace-off Init, which reads the configuration and
// makes no writer; given names Init's debug file in etc/conf/.
static ModuleMap Registry(const std::string& debugFile, const std::string& productFile,
                   const std::string& given = "") {
  MgrRoot inst(debugFile, productFile);
  ModuleMap modules;
  if (ToviDebugMgr::Instance()->Init("cfg_", given.empty() ? "" : inst.Conf(given), inst.logs.path(), "", false, true))
    ToviDebugMgr::Instance()->GetAllModuleInfo(modules);
  return modules;
}

// Runs a writer under the given files and checks what it was given: how many
// application writers the table takes beside the main one, how many records
// are held back for an assertion, how many of 60 planted archives are kept.
static void CheckLimits(const std::string& debugFile, const std::string& productFile,
                 const std::string& initName, int appWriters, int held, int archives) {
  MgrRoot inst(debugFile, productFile);
  for (int i = 10; i < 70; ++i) WriteFile(inst.logs / (initName + "20010101_0000" + std::to_string(i) + ".log.gz"), "");
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  ASSERT_TRUE(mgr->Init(initName, "", inst.logs.path(), "", false, false));
  for (int i = 0; i <= appWriters; ++i)
    EXPECT_EQ(mgr->AppTrace("debug", LEVEL_INFO, "x", nullptr, false, false, std::to_string(i)), i < appWriters);
  // One record more than is held back; they come out on the console too.
  StdoutCapture quiet;
  for (int i = 0; i <= held; ++i)
    mgr->Trace("debug", LEVEL_INFO, ("held-" + std::to_string(i) + ";").c_str(), nullptr, false, false);
  mgr->Trace("debug", LEVEL_ASSERT, "boom", nullptr, false, true);
  ToviDebugMgr::Destroy();
  const std::vector<std::string> names = ListDir(inst.logs.path());
  const std::string text = ReadFile(inst.logs / names.back());
  EXPECT_EQ(names.size(), archives + 1u + appWriters) << initName;
  EXPECT_TRUE(text.find("held-0;") == std::string::npos && text.find("held-1;") != std::string::npos);
}

TEST(DebugConfig, MasksFromTheDebugAndProductFiles) {
  const Masks defaults{Bits({0, 1}), Bits({1})};
  // A key is cut in front of the first "_level" or "_output" in it; the last
  // of two lines wins.
  EXPECT_EQ(Registry("debug_level=1110\ndebug_output=0100\nMRB_level=1\nMRB_output=11\n"
                     "a_level_level=1\na_level_level=01\n", ""),
            (ModuleMap{{"debug", {Bits({0, 1, 2}), Bits({1})}}, {"MRB", {Bits({0}), Bits({0, 1})}},
                       {"a", {Bits({1}), Bits({1})}}}));
  // 40 characters: whatever stands in front of the last 32 is ignored; a
  // counted character that is no 0 or 1 makes the default.
  EXPECT_EQ(Registry("debug_level=a b=1 0x1" + std::string(31, '0') + "\nX_output=1x1\n", ""),
            (ModuleMap{{"debug", {Bits({0}), Bits({1})}}, {"X", {Bits({0, 1}), Bits({0, 1})}}}));
  // A "_level" key replaces the whole entry, "debug" included; sub-module
  // keys are not read from the product file, the two "debug" keys are.
  EXPECT_EQ(Registry("debug_level=1110\n", "debug_output=1000\n"),
            (ModuleMap{{"debug", {Bits({0, 1, 2}), Bits({1})}}}));
  EXPECT_EQ(Registry("X_level=1\n", "debug_level=0010\ndebug_output=1\nY_level=1\n"),
            (ModuleMap{{"debug", {Bits({2}), Bits({0})}}, {"X", {Bits({0}), Bits({1})}}}));
  // Values above 4369 keep their four lowest bits; 4369 and below stay.
  EXPECT_EQ(Registry("A_level=1000100010001\nB_output=0001100010001\n", ""),
            (ModuleMap{{"debug", defaults},
                       {"A", {Bits({0, 4, 8, 12}), Bits({1})}},
                       {"B", {Bits({0, 1}), Bits({3})}}}));
  // A given file that does not exist: the default debug file is read.
  EXPECT_EQ(Registry("debug_level=0001\n", "", "absent.cfg"),
            (ModuleMap{{"debug", {Bits({3}), Bits({1})}}}));
  // The product file given as the debug file is read alone, with no second
  // look at it and nothing from the default debug file.
  EXPECT_EQ(Registry("debug_level=0001\nZ_level=1\n", "debug_level=01\nY_output=01\n", "tovi.cfg"),
            (ModuleMap{{"debug", {Bits({1}), Bits({1})}}, {"Y", {Bits({0, 1}), Bits({1})}}}));
}

TEST(DebugConfig, LimitsReachTheWriters) {
  // The debug file wins over the product file, which gives what the debug
  // file lacks; a zip count of 0 is out of range.
  CheckLimits("nFiltLogBufSize=3\nnEachProcessMaxZipNum=0\n", "nMaxFileNum=2\nnFiltLogBufSize=7\n",
              "limits_", 2, 3, 10);
  // 1001 is out of range; "abc" is 0, which nMaxFileNum keeps; this one Init
  // name keeps five times the archives, counted after the range is applied.
  CheckLimits("nFiltLogBufSize=1001\nnMaxFileNum=abc\nnEachProcessMaxZipNum=11\n", "",
              "TOVIMrb_p2_", 0, 100, 55);
}
