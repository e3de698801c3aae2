// The debug manager: its lifecycle, the sub-module registry and the debug
// engine, with real files, real threads and the real writer behind it.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <atomic>
#include <bitset>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ToviDebugEngine.h"
#include "ToviDebugMgr.h"
#include "WriterTestSupport.h"

using namespace tovitest;

namespace {

typedef std::bitset<32> Mask;
typedef std::map<std::string, std::pair<Mask, Mask>> ModuleMap;

// A mask from the numbers of its set bits.
Mask Bits(std::initializer_list<int> bits) {
  Mask mask;
  for (int bit : bits) mask.set(static_cast<std::size_t>(bit));
  return mask;
}

struct ManagerGuard {
  ~ManagerGuard() { ToviDebugMgr::Destroy(); }
};

// A root of its own, so that no configuration of the machine leaks in.
struct Installation {
  TempDir root;
  ScopedEnv env{"TOVI_ROOT", root.path().c_str()};
  Installation() { std::filesystem::create_directories(root / "etc/conf"); }
  std::string DebugFile() const { return root / "etc/conf/default_debug.cfg"; }
};

std::pair<Mask, Mask> MasksOf(ToviDebugMgr* mgr, const std::string& name) {
  std::pair<Mask, Mask> masks;
  EXPECT_TRUE(mgr->GetSubModuleInfo(name, masks.first, masks.second)) << name;
  return masks;
}

std::vector<std::string> LogFiles(const std::string& dir, const std::string& prefix) {
  std::vector<std::string> found;
  for (const std::string& name : ListDir(dir)) {
    if (name.compare(0, prefix.size(), prefix) == 0 && EndsWith(name, ".log")) {
      found.push_back(name);
    }
  }
  return found;
}

// An engine that notes every call it is given and counts its destructions.
class RecordingEngine : public ToviDebugEngine {
public:
  explicit RecordingEngine(bool result = true) : result_(result) {}
  ~RecordingEngine() override { ++Destroyed(); }

  bool Trace(const std::string& subModule, ToviLogLevel level, const char* text,
             const AsnType* asn, bool bPrint, bool bLog) override {
    return Note(subModule, level, text, asn, bPrint, bLog, "-");
  }
  bool AppTrace(const std::string& subModule, ToviLogLevel level, const char* text,
                const AsnType* asn, bool bPrint, bool bLog, const std::string& appName) override {
    return Note(subModule, level, text, asn, bPrint, bLog, appName);
  }

  static int& Destroyed() {
    static int destroyed = 0;
    return destroyed;
  }

  // "sub-module|level|text|P for print, L for log|application".
  std::vector<std::string> calls;
  std::vector<const AsnType*> asns;

private:
  bool Note(const std::string& subModule, int level, const char* text, const AsnType* asn,
            bool bPrint, bool bLog, const std::string& appName) {
    calls.push_back(subModule + "|" + std::to_string(level) + "|" +
                    (text != nullptr ? text : "(null)") + "|" + (bPrint ? "P" : "") +
                    (bLog ? "L" : "") + "|" + appName);
    asns.push_back(asn);
    return result_;
  }

  bool result_;
};

}  // namespace

TEST(DebugMgr, LifecycleFromAbsentToInitialisedAndBack) {
  Installation inst;
  TempDir logs;
  TempDir otherLogs;
  ManagerGuard guard;

  ToviDebugMgr::Destroy();
  ToviDebugMgr::Destroy();
  EXPECT_EQ(ToviDebugMgr::m_pInstance.load(), nullptr);

  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  ASSERT_NE(mgr, nullptr);
  EXPECT_EQ(ToviDebugMgr::Instance(), mgr);
  EXPECT_FALSE(mgr->IsInit());
  EXPECT_FALSE(mgr->Trace("debug", LEVEL_ERROR, "too early", nullptr, false, true));

  EXPECT_FALSE(mgr->Init("", "", logs.path(), "", false, false));
  EXPECT_FALSE(mgr->IsInit());

  WriteFile(inst.DebugFile(), "debug_level=1\n");
  ASSERT_TRUE(mgr->Init("life_", "", logs.path(), "HEAD\n", false, false));
  EXPECT_TRUE(mgr->IsInit());
  // Records still queued when Destroy comes are written all the same.
  constexpr int kRecords = 10000;
  for (int i = 0; i < kRecords; ++i) {
    const std::string text = "rec-" + std::to_string(i) + ";";
    ASSERT_TRUE(mgr->Trace("debug", LEVEL_INFO, text.c_str(), nullptr, false, true));
  }

  // Init succeeds once; a later call with other paths and another reading
  // changes nothing.
  const std::string otherCfg = inst.root / "other.cfg";
  WriteFile(otherCfg, "debug_level=0001\nLATE_level=1\n");
  const std::string otherDir = otherLogs / "never";
  EXPECT_TRUE(mgr->Init("other_", otherCfg, otherDir, "", false, false));
  EXPECT_EQ(MasksOf(mgr, "debug"), std::make_pair(Bits({0}), Bits({1})));
  Mask level;
  Mask output;
  EXPECT_FALSE(mgr->GetSubModuleInfo("LATE", level, output));

  ToviDebugMgr::Destroy();
  EXPECT_EQ(ToviDebugMgr::m_pInstance.load(), nullptr);
  const std::vector<std::string> files = LogFiles(logs.path(), "life_");
  ASSERT_EQ(files.size(), 1u);
  const std::string text = ReadFile(logs.path() + files[0]);
  EXPECT_NE(text.find("HEAD\n"), std::string::npos);
  int found = 0;
  for (std::size_t pos = 0; (pos = text.find("debug INFO: rec-", pos)) != std::string::npos; ++pos) {
    EXPECT_EQ(std::atoi(text.c_str() + pos + 16), found);
    ++found;
  }
  EXPECT_EQ(found, kRecords);
  EXPECT_FALSE(std::filesystem::exists(otherDir));

  // A fresh manager after Destroy; trace-off makes no writer and no file.
  mgr = ToviDebugMgr::Instance();
  ASSERT_NE(mgr, nullptr);
  EXPECT_FALSE(mgr->IsInit());
  TempDir quietLogs;
  ASSERT_TRUE(mgr->Init("quiet_", "", quietLogs.path(), "", false, true));
  EXPECT_TRUE(mgr->IsInit());
  EXPECT_FALSE(mgr->Trace("debug", LEVEL_ASSERT, "dropped", nullptr, true, true));
  EXPECT_FALSE(mgr->AppTrace("debug", LEVEL_ASSERT, "dropped", nullptr, true, true, "app"));
  ToviDebugMgr::Destroy();
  EXPECT_TRUE(ListDir(quietLogs.path()).empty());

  // No log directory given: the default one under the root, whose last level
  // the writer creates.
  std::filesystem::create_directories(inst.root / "var/logs");
  ASSERT_TRUE(ToviDebugMgr::Instance()->Init("dflt_", "", "", "", false, false));
  ToviDebugMgr::Destroy();
  EXPECT_EQ(LogFiles(inst.root / "var/logs/mrblog/", "dflt_").size(), 1u);

  EXPECT_EQ(ToviDebugMgr::TOVIchown(inst.root.path()), 0);
  const int status = ToviDebugMgr::system("exit 3");
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 3);
}

TEST(DebugMgr, FailedInitKeepsItsStateAndALaterInitRedoesEverything) {
  Installation inst;
  TempDir logs;
  ManagerGuard guard;
  WriteFile(inst.DebugFile(), "S_level=1\nS_output=1\n");

  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  const std::string tooLong(300, 'n');
  for (const std::string& bad : {std::string("a/b"), std::string("a\\b"), tooLong}) {
    EXPECT_FALSE(mgr->Init(bad, "", logs.path(), "", false, false)) << bad;
    EXPECT_FALSE(mgr->IsInit());
  }
  EXPECT_TRUE(ListDir(logs.path()).empty());

  // The sub-modules of the failed runs are there and can be changed.
  EXPECT_EQ(MasksOf(mgr, "S"), std::make_pair(Bits({0}), Bits({0})));
  EXPECT_TRUE(mgr->SetLogLevel("S", LEVEL_WARN, true));
  EXPECT_EQ(MasksOf(mgr, "S").first, Bits({0, 2}));
  EXPECT_FALSE(mgr->RegSubModuleInfo("T", Bits({0}), Bits({0}), false));
  ModuleMap modules;
  EXPECT_FALSE(mgr->GetAllModuleInfo(modules));
  EXPECT_FALSE(mgr->Trace("S", LEVEL_ASSERT, "refused", nullptr, false, true));

  // A name with a separator is taken when that path exists in the log
  // directory. The configuration is read again.
  std::filesystem::create_directories(logs / "sub");
  WriteFile(logs / "sub/x", "");
  WriteFile(inst.DebugFile(), "S_level=01\nS_output=01\n");
  ASSERT_TRUE(mgr->Init("sub/x", "", logs.path(), "", false, false));
  EXPECT_EQ(MasksOf(mgr, "S"), std::make_pair(Bits({1}), Bits({1})));
  ToviDebugMgr::Destroy();
  EXPECT_EQ(LogFiles(logs / "sub/", "x2").size(), 1u);
}

TEST(DebugMgr, RegistryOperations) {
  Installation inst;
  TempDir logs;
  ManagerGuard guard;
  WriteFile(inst.DebugFile(), "MRB_level=1\nMRB_output=11\n");

  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  EXPECT_FALSE(mgr->RegSubModuleInfo("NEW", Bits({0}), Bits({1}), false));
  EXPECT_FALSE(mgr->SetLogLevel("debug", LEVEL_INFO, true));
  EXPECT_FALSE(mgr->SetAllModuleInfo(Bits({0}), Bits({0}), false));
  ASSERT_TRUE(mgr->Init("reg_", "", logs.path(), "", false, true));
  Mask level;
  Mask output;
  EXPECT_FALSE(mgr->GetSubModuleInfo("NEW", level, output));

  EXPECT_TRUE(mgr->RegSubModuleInfo("NEW", Bits({0}), Bits({1}), false));
  EXPECT_EQ(MasksOf(mgr, "NEW"), std::make_pair(Bits({0}), Bits({1})));
  EXPECT_FALSE(mgr->RegSubModuleInfo("", Bits({0}), Bits({1}), false));

  // A new name takes a copy of the masks of "debug", not a link to them.
  EXPECT_TRUE(mgr->RegSubModuleInfo("COPY", Bits({7}), Bits({7}), true));
  EXPECT_EQ(MasksOf(mgr, "COPY"), std::make_pair(Bits({0, 1}), Bits({1})));
  EXPECT_TRUE(mgr->SetLogLevel("", LEVEL_INFO, true));
  EXPECT_EQ(MasksOf(mgr, "debug").first, Bits({0, 1, 3}));
  EXPECT_EQ(MasksOf(mgr, "COPY").first, Bits({0, 1}));

  // One output bit off, the other stays.
  EXPECT_TRUE(mgr->SetLogOutput("MRB", OUTPUT_CONSOLE, false));
  EXPECT_EQ(MasksOf(mgr, "MRB"), std::make_pair(Bits({0}), Bits({1})));
  // A registered name gets the masks given, whatever bUseDebugDefault says.
  EXPECT_TRUE(mgr->RegSubModuleInfo("MRB", Bits({5}), Bits({0}), true));
  EXPECT_EQ(MasksOf(mgr, "MRB"), std::make_pair(Bits({5}), Bits({0})));

  EXPECT_TRUE(mgr->SetLogLevel("NEW", static_cast<ToviLogLevel>(31), true));
  EXPECT_TRUE(mgr->SetLogOutput("NEW", static_cast<ToviOutputDirection>(31), true));
  for (int bad : {32, 1000, -1}) {
    EXPECT_FALSE(mgr->SetLogLevel("NEW", static_cast<ToviLogLevel>(bad), true)) << bad;
    EXPECT_FALSE(mgr->SetLogLevel("NEW", static_cast<ToviLogLevel>(bad), false)) << bad;
    EXPECT_FALSE(mgr->SetLogOutput("NEW", static_cast<ToviOutputDirection>(bad), false)) << bad;
  }
  EXPECT_EQ(MasksOf(mgr, "NEW"), std::make_pair(Bits({0, 31}), Bits({1, 31})));

  // Unknown names: refused, not created, out-arguments untouched.
  EXPECT_FALSE(mgr->SetLogLevel("nobody", LEVEL_INFO, true));
  EXPECT_FALSE(mgr->SetLogOutput("nobody", OUTPUT_FILE, true));
  level = Bits({9});
  output = Bits({10});
  EXPECT_FALSE(mgr->GetSubModuleInfo("nobody", level, output));
  EXPECT_FALSE(mgr->GetSubModuleInfo(" MRB", level, output));
  EXPECT_EQ(level, Bits({9}));
  EXPECT_EQ(output, Bits({10}));

  // Names compare byte by byte.
  EXPECT_TRUE(mgr->RegSubModuleInfo(" MRB", Bits({2}), Bits({2}), false));
  EXPECT_TRUE(mgr->SetLogLevel(" MRB", LEVEL_INFO, true));
  EXPECT_EQ(MasksOf(mgr, " MRB"), std::make_pair(Bits({2, 3}), Bits({2})));
  EXPECT_EQ(MasksOf(mgr, "MRB"), std::make_pair(Bits({5}), Bits({0})));

  ModuleMap items{{"foreign", {Bits({20}), Bits({20})}}, {"debug", {Bits({}), Bits({})}}};
  ASSERT_TRUE(mgr->GetAllModuleInfo(items));
  const ModuleMap expected{{"foreign", {Bits({20}), Bits({20})}},
                           {"debug", {Bits({0, 1, 3}), Bits({1})}},
                           {"MRB", {Bits({5}), Bits({0})}},
                           {" MRB", {Bits({2, 3}), Bits({2})}},
                           {"NEW", {Bits({0, 31}), Bits({1, 31})}},
                           {"COPY", {Bits({0, 1}), Bits({1})}}};
  EXPECT_EQ(items, expected);

  const std::vector<std::string> names{"debug", "MRB", " MRB", "NEW", "COPY"};
  ASSERT_TRUE(mgr->SetAllModuleInfo(Bits({4}), Bits({0}), false));
  for (const std::string& name : names) {
    EXPECT_EQ(MasksOf(mgr, name), std::make_pair(Bits({4}), Bits({0}))) << name;
  }
  EXPECT_TRUE(mgr->SetLogLevel("debug", LEVEL_ERROR, true));
  ASSERT_TRUE(mgr->SetAllModuleInfo(Bits({6}), Bits({6}), true));
  for (const std::string& name : names) {
    EXPECT_EQ(MasksOf(mgr, name), std::make_pair(Bits({1, 4}), Bits({0}))) << name;
  }
}

TEST(DebugMgr, EngineRegistrationAndOwnership) {
  Installation inst;
  ManagerGuard guard;
  int& destroyed = RecordingEngine::Destroyed();
  destroyed = 0;

  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  EXPECT_FALSE(mgr->RegDebugEngine(nullptr));
  EXPECT_TRUE(mgr->UnRegDebugEngine(nullptr));
  EXPECT_EQ(mgr->GetDebugEngine(), nullptr);

  RecordingEngine* a = new RecordingEngine;
  RecordingEngine stranger;
  EXPECT_FALSE(mgr->UnRegDebugEngine(a));
  ASSERT_TRUE(mgr->RegDebugEngine(a));
  EXPECT_EQ(mgr->GetDebugEngine(), a);
  EXPECT_FALSE(mgr->UnRegDebugEngine(&stranger));
  EXPECT_FALSE(mgr->UnRegDebugEngine(nullptr));
  EXPECT_EQ(mgr->GetDebugEngine(), a);
  EXPECT_EQ(destroyed, 0);

  // A replaced engine goes back to its creator.
  RecordingEngine* b = new RecordingEngine;
  ASSERT_TRUE(mgr->RegDebugEngine(b));
  EXPECT_EQ(mgr->GetDebugEngine(), b);
  EXPECT_FALSE(mgr->UnRegDebugEngine(a));
  EXPECT_EQ(destroyed, 0);
  delete a;
  EXPECT_EQ(destroyed, 1);

  EXPECT_TRUE(mgr->UnRegDebugEngine(b));
  EXPECT_EQ(destroyed, 2);
  EXPECT_EQ(mgr->GetDebugEngine(), nullptr);

  // The manager frees what is registered when it goes, initialised or not.
  ASSERT_TRUE(mgr->RegDebugEngine(new RecordingEngine));
  ToviDebugMgr::Destroy();
  EXPECT_EQ(destroyed, 3);
  TempDir logs;
  mgr = ToviDebugMgr::Instance();
  ASSERT_TRUE(mgr->RegDebugEngine(new RecordingEngine));
  ASSERT_TRUE(mgr->Init("own_", "", logs.path(), "", false, false));
  ToviDebugMgr::Destroy();
  EXPECT_EQ(destroyed, 4);
}

TEST(DebugMgr, EngineTakesEveryTraceCallOnceInitialised) {
  Installation inst;
  TempDir logs;
  ManagerGuard guard;
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  RecordingEngine* engine = new RecordingEngine(false);
  ASSERT_TRUE(mgr->RegDebugEngine(engine));

  EXPECT_FALSE(mgr->Trace("debug", LEVEL_ASSERT, "early", nullptr, false, true));
  EXPECT_FALSE(mgr->AppTrace("debug", LEVEL_ASSERT, "early", nullptr, false, true, "app"));
  EXPECT_TRUE(engine->calls.empty());

  ASSERT_TRUE(mgr->Init("eng_", "", logs.path(), "", false, false));
  // The engine's own result comes back; nothing is checked or widened first
  // (the masks of "debug" would add the file to an assertion).
  CountingAsn asn("v");
  const int clonesBefore = CountingAsn::Clones().load();
  EXPECT_FALSE(mgr->Trace("debug", LEVEL_ASSERT, "to engine", &asn, false, false));
  EXPECT_FALSE(mgr->Trace("nobody", static_cast<ToviLogLevel>(99), nullptr, nullptr, true, false));
  EXPECT_FALSE(mgr->AppTrace("MRB", static_cast<ToviLogLevel>(-1), nullptr, nullptr, false, true,
                             "a/b"));
  EXPECT_EQ(CountingAsn::Clones().load(), clonesBefore);
  EXPECT_EQ(engine->calls, (std::vector<std::string>{"debug|0|to engine||-",
                                                     "nobody|99|(null)|P|-", "MRB|-1|(null)|L|a/b"}));
  EXPECT_EQ(engine->asns, (std::vector<const AsnType*>{&asn, nullptr, nullptr}));

  // Unregistered, the library's own way again.
  ASSERT_TRUE(mgr->UnRegDebugEngine(engine));
  EXPECT_TRUE(mgr->Trace("debug", LEVEL_ASSERT, "to file", nullptr, false, false));
  ToviDebugMgr::Destroy();
  const std::vector<std::string> files = LogFiles(logs.path(), "eng_");
  ASSERT_EQ(files.size(), 1u);
  const std::string text = ReadFile(logs.path() + files[0]);
  EXPECT_EQ(text.find("to engine"), std::string::npos);
  EXPECT_NE(text.find("debug ASSERT: to file"), std::string::npos);

  // Trace-off: every call goes to the engine and no writer is made.
  TempDir quietLogs;
  mgr = ToviDebugMgr::Instance();
  engine = new RecordingEngine(true);
  ASSERT_TRUE(mgr->RegDebugEngine(engine));
  ASSERT_TRUE(mgr->Init("off_", "", quietLogs.path(), "", false, true));
  EXPECT_TRUE(mgr->Trace("debug", LEVEL_INFO, "t", nullptr, false, false));
  EXPECT_TRUE(mgr->AppTrace("debug", LEVEL_INFO, "t", nullptr, false, false, "app"));
  EXPECT_EQ(engine->calls.size(), 2u);
  ASSERT_TRUE(mgr->UnRegDebugEngine(engine));
  EXPECT_FALSE(mgr->Trace("debug", LEVEL_ASSERT, "t", nullptr, false, true));
  ToviDebugMgr::Destroy();
  EXPECT_TRUE(ListDir(quietLogs.path()).empty());
}

TEST(DebugMgr, RegistryChangesBesideLookupsAndTraces) {
  constexpr int kIterations = 3000;
  constexpr int kNewNames = 40;
  Installation inst;
  TempDir logs;
  ManagerGuard guard;
  WriteFile(inst.DebugFile(), "MRB_level=1\nMRB_output=01\nOTHER_level=11\n");
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  ASSERT_TRUE(mgr->Init("race_", "", logs.path(), "", false, false));

  std::atomic<int> failures{0};
  auto count = [&failures](bool ok) {
    if (!ok) ++failures;
  };
  std::vector<std::thread> threads;
  // Changers, on configured names and on names that appear meanwhile.
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kIterations; ++i) {
        const ToviLogLevel level = static_cast<ToviLogLevel>(8 + (i + t) % 20);
        count(mgr->SetLogLevel(i % 2 == 0 ? "MRB" : "", level, i % 3 != 0));
        count(mgr->SetLogOutput("OTHER", static_cast<ToviOutputDirection>(2 + i % 20), i % 2));
        const std::string name = "N" + std::to_string(t) + "_" + std::to_string(i % kNewNames);
        count(mgr->RegSubModuleInfo(name, Bits({i % 32}), Bits({}), i % 4 == 0));
        if (i % 100 == 0) count(mgr->SetAllModuleInfo(Bits({9}), Bits({}), t == 0));
      }
    });
  }
  // Readers.
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kIterations; ++i) {
        Mask level;
        Mask output;
        count(mgr->GetSubModuleInfo(t == 0 ? "MRB" : "debug", level, output));
        if (i % 10 == 0) {
          ModuleMap items;
          count(mgr->GetAllModuleInfo(items));
          count(items.count("debug") == 1 && items.count("OTHER") == 1);
        }
      }
    });
  }
  // Tracers, on registered names, on names being registered and on unknown
  // ones; without their own file demand, so that little reaches the disk.
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kIterations; ++i) {
        const std::string name = "N" + std::to_string(t) + "_" + std::to_string(i % kNewNames);
        count(mgr->Trace(i % 3 == 0 ? "MRB" : name, LEVEL_WARN, "race", nullptr, false, false));
      }
    });
  }
  for (std::thread& th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);

  ModuleMap items;
  ASSERT_TRUE(mgr->GetAllModuleInfo(items));
  std::set<std::string> names;
  for (const auto& item : items) {
    names.insert(item.first);
    EXPECT_EQ(MasksOf(mgr, item.first), item.second) << item.first;
  }
  std::set<std::string> expected{"debug", "MRB", "OTHER"};
  for (int t = 0; t < 2; ++t) {
    for (int i = 0; i < kNewNames; ++i) {
      expected.insert("N" + std::to_string(t) + "_" + std::to_string(i));
    }
  }
  EXPECT_EQ(names, expected);
}
