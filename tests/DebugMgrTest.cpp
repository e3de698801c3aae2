// The debug manager: its lifecycle, the sub-module registry and the debug
// engine, with real files, real threads and the real writer behind it.
#include <gtest/gtest.h>

#include <bitset>
#include <map>
#include <set>

#include "ToviDebugEngine.h"
#include "ToviDebugMgr.h"
#include "WriterTestSupport.h"

using namespace tovitest;

namespace {

typedef std::bitset<32> Mask;
typedef std::pair<Mask, Mask> Masks;
typedef std::map<std::string, Masks> ModuleMap;

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

Masks MasksOf(ToviDebugMgr* mgr, const std::string& name) {
  Masks masks;
  EXPECT_TRUE(mgr->GetSubModuleInfo(name, masks.first, masks.second)) << name;
  return masks;
}

// An engine that notes each call as "sub-module|level|text|asn|P and/or L|
// application" ("-" for Trace), answers true, which a manager without an
// engine would not, and counts its destructions.
struct RecordingEngine : ToviDebugEngine {
  ~RecordingEngine() override { ++destroyed; }
  bool Trace(const std::string& sub, ToviLogLevel level, const char* text, const AsnType* asn,
             bool bPrint, bool bLog) override {
    return AppTrace(sub, level, text, asn, bPrint, bLog, "-");
  }
  bool AppTrace(const std::string& sub, ToviLogLevel level, const char* text, const AsnType* asn,
                bool bPrint, bool bLog, const std::string& app) override {
    calls.push_back(sub + "|" + std::to_string(level) + "|" + (text ? text : "(null)") + "|" +
                    (asn ? "asn|" : "|") + (bPrint ? "P" : "") + (bLog ? "L" : "") + "|" + app);
    return true;
  }
  static inline int destroyed = 0;
  std::vector<std::string> calls;
};

}  // namespace

TEST(DebugMgr, LifecycleAndRegistry) {
  Installation inst;
  TempDir logs;
  ManagerGuard guard;
  ToviDebugMgr::Destroy();
  ToviDebugMgr::Destroy();
  EXPECT_EQ(ToviDebugMgr::m_pInstance.load(), nullptr);
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  EXPECT_EQ(ToviDebugMgr::Instance(), mgr);

  // Refused names leave the manager uninitialised and write nothing, but the
  // sub-modules read on the way are registered and can be changed; what
  // needs an initialised manager is refused.
  WriteFile(inst.DebugFile(), "MRB_level=1\nMRB_output=11\n");
  const std::string tooLong(300, 'n');
  for (const std::string& bad : {std::string(), std::string("a/b"), std::string("a\\b"), tooLong}) {
    EXPECT_FALSE(mgr->Init(bad, "", logs.path(), "", false, false)) << bad;
  }
  EXPECT_FALSE(mgr->IsInit());
  EXPECT_TRUE(ListDir(logs.path()).empty());
  EXPECT_FALSE(mgr->Trace("MRB", LEVEL_ASSERT, "refused", nullptr, false, true));
  EXPECT_TRUE(mgr->SetLogLevel("MRB", LEVEL_WARN, true));
  EXPECT_EQ(MasksOf(mgr, "MRB"), Masks(Bits({0, 2}), Bits({0, 1})));
  ModuleMap items{{"foreign", {Bits({20}), Bits({20})}}, {"debug", {}}};
  EXPECT_FALSE(mgr->RegSubModuleInfo("NEW", Bits({0}), Bits({1}), false));
  EXPECT_FALSE(mgr->SetAllModuleInfo(Bits({0}), Bits({0}), false));
  EXPECT_FALSE(mgr->GetAllModuleInfo(items));

  // A name with a separator is taken when that path stands in the log
  // directory, and the configuration is read again.
  std::filesystem::create_directories(logs / "sub");
  WriteFile(logs / "sub/x", "");
  WriteFile(inst.DebugFile(), "debug_level=1\nMRB_level=01\nMRB_output=11\n");
  ASSERT_TRUE(mgr->Init("sub/x", "", logs.path(), "HEAD\n", false, false));
  EXPECT_EQ(MasksOf(mgr, "MRB"), Masks(Bits({1}), Bits({0, 1})));
  constexpr int kRecords = 10000;
  for (int i = 0; i < kRecords; ++i) {
    const std::string text = "rec-" + std::to_string(i) + ";";
    ASSERT_TRUE(mgr->Trace("debug", LEVEL_INFO, text.c_str(), nullptr, false, true));
  }

  // A second Init, with other paths and another reading, changes nothing.
  WriteFile(inst.root / "other.cfg", "debug_level=0001\n");
  EXPECT_TRUE(mgr->Init("other_", inst.root / "other.cfg", logs / "never", "", false, false));
  EXPECT_EQ(MasksOf(mgr, "debug"), Masks(Bits({0}), Bits({1})));

  EXPECT_TRUE(mgr->RegSubModuleInfo("NEW", Bits({0}), Bits({1}), false));
  EXPECT_FALSE(mgr->RegSubModuleInfo("", Bits({0}), Bits({1}), false));
  // A new name takes a copy of the masks of "debug", which a later change of
  // "debug" (named by the empty name) leaves alone.
  EXPECT_TRUE(mgr->RegSubModuleInfo("COPY", Bits({7}), Bits({7}), true));
  EXPECT_TRUE(mgr->SetLogLevel("", LEVEL_INFO, true));
  // A registered name gets the masks given, whatever bUseDebugDefault says;
  // clearing one output bit keeps the other.
  EXPECT_TRUE(mgr->RegSubModuleInfo("MRB", Bits({5}), Bits({0, 1}), true));
  EXPECT_TRUE(mgr->SetLogOutput("MRB", OUTPUT_CONSOLE, false));
  EXPECT_TRUE(mgr->SetLogLevel("NEW", static_cast<ToviLogLevel>(31), true));
  EXPECT_TRUE(mgr->SetLogOutput("NEW", static_cast<ToviOutputDirection>(31), true));
  for (int bad : {32, -1}) {
    EXPECT_FALSE(mgr->SetLogLevel("NEW", static_cast<ToviLogLevel>(bad), false)) << bad;
    EXPECT_FALSE(mgr->SetLogOutput("NEW", static_cast<ToviOutputDirection>(bad), true)) << bad;
  }
  // Unknown names are refused and not created; names compare byte by byte.
  EXPECT_FALSE(mgr->SetLogLevel("nobody", LEVEL_INFO, true));
  EXPECT_FALSE(mgr->SetLogOutput("nobody", OUTPUT_FILE, true));
  Mask level = Bits({9}), output = Bits({10});
  EXPECT_FALSE(mgr->GetSubModuleInfo(" MRB", level, output));
  EXPECT_EQ(Masks(level, output), Masks(Bits({9}), Bits({10})));
  EXPECT_TRUE(mgr->RegSubModuleInfo(" MRB", Bits({2}), Bits({2}), false));
  // Entries of other names stay in the caller's map.
  ASSERT_TRUE(mgr->GetAllModuleInfo(items));
  EXPECT_EQ(items, (ModuleMap{{"foreign", {Bits({20}), Bits({20})}},
                              {"debug", {Bits({0, 3}), Bits({1})}},
                              {"MRB", {Bits({5}), Bits({1})}},
                              {" MRB", {Bits({2}), Bits({2})}},
                              {"NEW", {Bits({0, 31}), Bits({1, 31})}},
                              {"COPY", {Bits({0}), Bits({1})}}}));
  // Every sub-module, "debug" included, takes the masks given, or those of "debug".
  ASSERT_TRUE(mgr->SetAllModuleInfo(Bits({4}), Bits({0}), false));
  EXPECT_TRUE(mgr->SetLogLevel("debug", LEVEL_ERROR, true));
  ASSERT_TRUE(mgr->SetAllModuleInfo(Bits({6}), Bits({6}), true));
  for (const char* name : {"debug", "MRB", " MRB", "NEW", "COPY"}) {
    EXPECT_EQ(MasksOf(mgr, name), Masks(Bits({1, 4}), Bits({0}))) << name;
  }

  // Destroy comes while most records are still queued; all are written.
  ToviDebugMgr::Destroy();
  EXPECT_FALSE(std::filesystem::exists(logs / "never"));
  // The planted "x" sorts before the log file.
  const std::string text = ReadFile(logs / ("sub/" + ListDir(logs / "sub").at(1)));
  EXPECT_NE(text.find("HEAD\n"), std::string::npos);
  EXPECT_EQ(Occurrences(text, "debug INFO: rec-"), static_cast<std::size_t>(kRecords));

  // A fresh manager, and no log directory given: the default one under the root.
  EXPECT_FALSE(ToviDebugMgr::Instance()->IsInit());
  std::filesystem::create_directories(inst.root / "var/logs");
  ASSERT_TRUE(ToviDebugMgr::Instance()->Init("dflt_", "", "", "", false, false));
  ToviDebugMgr::Destroy();
  EXPECT_EQ(ListDir(inst.root / "var/logs/mrblog").size(), 1u);
}

TEST(DebugMgr, EngineOwnershipAndDispatch) {
  Installation inst;
  TempDir logs;
  ManagerGuard guard;
  RecordingEngine::destroyed = 0;
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  RecordingEngine* a = new RecordingEngine;
  RecordingEngine* b = new RecordingEngine;
  EXPECT_FALSE(mgr->RegDebugEngine(nullptr));
  EXPECT_TRUE(mgr->UnRegDebugEngine(nullptr));
  EXPECT_FALSE(mgr->UnRegDebugEngine(a));
  ASSERT_TRUE(mgr->RegDebugEngine(a));
  EXPECT_FALSE(mgr->UnRegDebugEngine(b));
  EXPECT_FALSE(mgr->UnRegDebugEngine(nullptr));
  EXPECT_EQ(mgr->GetDebugEngine(), a);
  EXPECT_FALSE(mgr->Trace("debug", LEVEL_ASSERT, "early", nullptr, false, true));
  EXPECT_TRUE(a->calls.empty());
  // A replaced engine goes back to its creator.
  ASSERT_TRUE(mgr->RegDebugEngine(b));
  EXPECT_FALSE(mgr->UnRegDebugEngine(a));
  EXPECT_EQ(RecordingEngine::destroyed, 0);
  delete a;

  // Once initialised, trace-off included, the engine takes every call as it
  // was made: its result comes back, nothing is checked or widened first (the
  // masks of "debug", which an unknown name falls back to, would add the file
  // to an assertion), and the caller's value is lent, not cloned.
  ASSERT_TRUE(mgr->Init("eng_", "", logs.path(), "", false, true));
  CountingAsn asn("v");
  const int clones = CountingAsn::Clones().load();
  EXPECT_TRUE(mgr->Trace("nobody", LEVEL_ASSERT, nullptr, &asn, true, false));
  EXPECT_TRUE(mgr->AppTrace("S", static_cast<ToviLogLevel>(-1), "t", nullptr, false, true, "a/b"));
  EXPECT_EQ(CountingAsn::Clones().load(), clones);
  EXPECT_EQ(b->calls, (std::vector<std::string>{"nobody|0|(null)|asn|P|-", "S|-1|t||L|a/b"}));
  EXPECT_TRUE(mgr->UnRegDebugEngine(b));
  EXPECT_EQ(RecordingEngine::destroyed, 2);

  // Without an engine a trace-off manager refuses every call and has no
  // writer to write a file; a registered engine goes with the manager.
  EXPECT_FALSE(mgr->Trace("debug", LEVEL_ASSERT, "dropped", nullptr, true, true));
  EXPECT_FALSE(mgr->AppTrace("debug", LEVEL_ASSERT, "dropped", nullptr, true, true, "x"));
  ASSERT_TRUE(mgr->RegDebugEngine(new RecordingEngine));
  ToviDebugMgr::Destroy();
  EXPECT_EQ(RecordingEngine::destroyed, 3);
  EXPECT_TRUE(ListDir(logs.path()).empty());
}

TEST(DebugMgr, RegistryChangesBesideLookupsAndTraces) {
  constexpr int kThreads = 4;
  constexpr int kNames = 40;
  Installation inst;
  TempDir logs;
  ManagerGuard guard;
  WriteFile(inst.DebugFile(), "MRB_level=1\nMRB_output=01\nOTHER_level=11\n");
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  ASSERT_TRUE(mgr->Init("race_", "", logs.path(), "", false, false));
  auto name = [](int t, int i) { return "N" + std::to_string(t * 100 + i % kNames); };

  // Every thread changes configured names, registers names of its own, looks
  // up and traces the names that a neighbour is registering meanwhile; with
  // no file demand of its own, so that little reaches the disk.
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 3000; ++i) {
        const int bit = 8 + (i + t) % 20;
        bool ok = mgr->SetLogLevel(i % 2 == 0 ? "MRB" : "", static_cast<ToviLogLevel>(bit), i % 3);
        ok &= mgr->SetLogOutput("OTHER", static_cast<ToviOutputDirection>(2 + i % 20), i % 2);
        ok &= mgr->RegSubModuleInfo(name(t, i), Bits({i % 32}), Bits({}), i % 4 == 0);
        if (i % 100 == 0) ok &= mgr->SetAllModuleInfo(Bits({9}), Bits({}), t % 2 == 0);
        const std::string other = i % 3 == 0 ? "MRB" : name((t + 1) % kThreads, i);
        ModuleMap items;
        if (i % 10 == 0) ok &= mgr->GetAllModuleInfo(items) && items.count("OTHER") == 1;
        ok &= mgr->Trace(other, LEVEL_WARN, "race", nullptr, false, false);
        if (!ok) ++failures;
      }
    });
  }
  for (std::thread& th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);

  ModuleMap items;
  ASSERT_TRUE(mgr->GetAllModuleInfo(items));
  std::set<std::string> expected{"debug", "MRB", "OTHER"};
  for (int i = 0; i < kThreads * kNames; ++i) expected.insert(name(i / kNames, i));
  for (const auto& item : items) EXPECT_EQ(expected.erase(item.first), 1u) << item.first;
  EXPECT_TRUE(expected.empty());
}
