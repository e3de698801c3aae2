// The debug manager: its lifecycle, the sub-module registry and the debug
// engine, with real files, real threads and the real writer behind it.
#include <gtest/gtest.h>

#include <map>

#include "ToviDebugEngine.h"
#include "WriterTestSupport.h"

using namespace tovitest;

namespace {

typedef std::pair<std::bitset<32>, std::bitset<32>> Masks;
typedef std::map<std::string, Masks> ModuleMap;

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

// An engine that reads itself again after giving up the processor, so that
// freeing it under a call is a use after free that ASan sees.
struct BusyEngine : ToviDebugEngine {
  bool Trace(const std::string&, ToviLogLevel, const char*, const AsnType*, bool, bool) override {
    calls.fetch_add(1);
    std::this_thread::yield();
    return calls.load() > 0;
  }
  bool AppTrace(const std::string& sub, ToviLogLevel level, const char* text, const AsnType* asn,
                bool bPrint, bool bLog, const std::string&) override {
    return Trace(sub, level, text, asn, bPrint, bLog);
  }
  std::atomic<long> calls{0};
};

}  // namespace

// A name that cannot start the names of files in the log directory leaves
// the manager uninitialised and writes nothing; a separator or ".." is
// refused where that path exists too, and so is a name that fits the file
// system while its longest file name (26 characters more) does not. The
// first Init that succeeds is the only one.
TEST(DebugMgr, InitRefusesUnusableNamesAndHappensOnce) {
  MgrRoot inst("MRB_level=1\nMRB_output=11\n");
  ToviDebugMgr::Destroy();  // no manager yet: nothing to free
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  std::filesystem::create_directories(inst.logs / "sub/x");
  const long nameMax = ::pathconf(inst.logs.path().c_str(), _PC_NAME_MAX);
  for (const std::string& bad : {std::string(), std::string("sub/x"), std::string("a\\b"),
                                 std::string(".."), std::string(nameMax - 25, 'n')})
    EXPECT_FALSE(mgr->Init(bad, "", inst.logs.path(), "", false, false)) << bad;
  EXPECT_FALSE(mgr->IsInit());
  EXPECT_EQ(ListDir(inst.logs / "sub"), std::vector<std::string>{"x"});
  EXPECT_FALSE(mgr->Trace("MRB", LEVEL_ASSERT, "refused", nullptr, false, true));
  // The sub-modules read on the way are registered and can be changed; what
  // needs an initialised manager is refused.
  EXPECT_TRUE(mgr->SetLogLevel("MRB", LEVEL_WARN, true));
  EXPECT_EQ(MasksOf(mgr, "MRB"), Masks(Bits({0, 2}), Bits({0, 1})));
  ModuleMap items;
  EXPECT_FALSE(mgr->RegSubModuleInfo("NEW", Bits({0}), Bits({1}), false) ||
               mgr->SetAllModuleInfo(Bits({0}), Bits({0}), false) || mgr->GetAllModuleInfo(items));

  // The longest name that fits is taken, and the configuration is read
  // again; an application's name joined to it would not fit.
  WriteFile(inst.Conf("default_debug.cfg"), "MRB_level=01\n");
  ASSERT_TRUE(mgr->Init(std::string(nameMax - 26, 'n'), "", inst.logs.path(), "HEAD\n", false, false));
  EXPECT_FALSE(mgr->AppTrace("debug", LEVEL_INFO, "app", nullptr, false, true, "a"));
  EXPECT_EQ(MasksOf(mgr, "MRB"), Masks(Bits({1}), Bits({1})));
  // A second Init, with other paths and another reading, changes nothing.
  WriteFile(inst.root / "other.cfg", "MRB_level=0001\n");
  EXPECT_TRUE(mgr->Init("other_", inst.root / "other.cfg", inst.logs / "never", "", false, false));
  EXPECT_EQ(MasksOf(mgr, "MRB"), Masks(Bits({1}), Bits({1})));
  ToviDebugMgr::Destroy();
  EXPECT_FALSE(std::filesystem::exists(inst.logs / "never"));
  const std::string text = ReadFile(inst.logs / ListDir(inst.logs.path()).at(0));
  EXPECT_NE(text.find("HEAD\nThis is the first"), std::string::npos);

  // A fresh manager, and no log directory given: the default one under the root.
  std::filesystem::create_directories(inst.root / "var/logs");
  ASSERT_TRUE(ToviDebugMgr::Instance()->Init("dflt_", "", "", "", false, false));
  ToviDebugMgr::Destroy();
  EXPECT_EQ(ListDir(inst.root / "var/logs/mrblog").size(), 1u);
}

TEST(DebugMgr, RegistryMasks) {
  MgrRoot inst("debug_level=1\nMRB_level=01\nMRB_output=11\n");
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  ASSERT_TRUE(mgr->Init("reg_", "", inst.logs.path(), "", false, true));
  EXPECT_TRUE(mgr->RegSubModuleInfo("NEW", Bits({0}), Bits({1}), false) &&
              !mgr->RegSubModuleInfo("", Bits({0}), Bits({1}), false));
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
  // Bits out of range are refused, and so are unknown names, which are not
  // created; names compare byte by byte, untrimmed.
  for (const auto& [who, bit] : std::vector<std::pair<const char*, int>>{{"NEW", 32}, {"NEW", -1}, {"nobody", 3}}) {
    EXPECT_FALSE(mgr->SetLogLevel(who, static_cast<ToviLogLevel>(bit), bit != 32)) << who << bit;
    EXPECT_FALSE(mgr->SetLogOutput(who, static_cast<ToviOutputDirection>(bit), true)) << who << bit;
  }
  Masks none;
  EXPECT_FALSE(mgr->GetSubModuleInfo(" MRB", none.first, none.second));
  EXPECT_TRUE(mgr->RegSubModuleInfo(" MRB", Bits({2}), Bits({2}), false));
  // Entries of other names stay in the caller's map.
  ModuleMap items{{"foreign", {Bits({20}), Bits({20})}}, {"debug", {}}};
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
  for (const char* name : {"debug", "MRB", " MRB", "NEW", "COPY"})
    EXPECT_EQ(MasksOf(mgr, name), Masks(Bits({1, 4}), Bits({0}))) << name;
}

TEST(DebugMgr, EngineOwnershipAndDispatch) {
  MgrRoot inst;
  RecordingEngine::destroyed = 0;
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  RecordingEngine *a = new RecordingEngine, *b = new RecordingEngine;
  // Only the registered engine can be unregistered.
  ASSERT_TRUE(!mgr->RegDebugEngine(nullptr) && mgr->RegDebugEngine(a));
  EXPECT_FALSE(mgr->UnRegDebugEngine(b) || mgr->UnRegDebugEngine(nullptr));
  EXPECT_FALSE(mgr->Trace("debug", LEVEL_ASSERT, "early", nullptr, false, true));
  EXPECT_TRUE(a->calls.empty());
  // A replaced engine goes back to its creator.
  ASSERT_TRUE(mgr->RegDebugEngine(b));
  EXPECT_TRUE(mgr->GetDebugEngine() == b && RecordingEngine::destroyed == 0);
  delete a;

  // Once initialised, trace-off included, the engine takes every call as it
  // was made: its result comes back, nothing is checked or widened first (the
  // masks of "debug", which an unknown name falls back to, would add the file
  // to an assertion), and the caller's value is lent, not cloned.
  ASSERT_TRUE(mgr->Init("eng_", "", inst.logs.path(), "", false, true));
  CountingAsn asn("v");
  const int clones = CountingAsn::Clones().load();
  EXPECT_TRUE(mgr->Trace("nobody", LEVEL_ASSERT, nullptr, &asn, true, false));
  EXPECT_TRUE(mgr->AppTrace("S", static_cast<ToviLogLevel>(-1), "t", nullptr, false, true, "a/b"));
  EXPECT_EQ(CountingAsn::Clones().load(), clones);
  EXPECT_EQ(b->calls, (std::vector<std::string>{"nobody|0|(null)|asn|P|-", "S|-1|t||L|a/b"}));
  EXPECT_TRUE(mgr->UnRegDebugEngine(b) && RecordingEngine::destroyed == 2);

  // A registered engine goes with the manager; trace-off made no writer.
  ASSERT_TRUE(mgr->RegDebugEngine(new RecordingEngine));
  ToviDebugMgr::Destroy();
  EXPECT_TRUE(RecordingEngine::destroyed == 3 && ListDir(inst.logs.path()).empty());
}

// Threads trace through engines that are swapped out under them, then
// through an engine or the writers while the manager is destroyed, and go on
// with the old pointer afterwards, when a new manager may exist: every late
// call is refused, and ASan sees nothing freed in use.
TEST(DebugMgr, EnginesAndManagerOutliveTheCallsInThem) {
  MgrRoot inst;
  for (const bool withEngine : {true, false}) {
    ToviDebugMgr* mgr = ToviDebugMgr::Instance();
    ASSERT_TRUE(mgr->Init("gone_", "", inst.logs.path(), "", false, false));
    BusyEngine spare;
    std::atomic<bool> destroyed{false};
    std::atomic<int> calls{0}, lateAccepted{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
      threads.emplace_back([&, t] {
        // No output is asked for, so nothing reaches the disk.
        for (int late = 0; late < 200; ++calls) {
          const bool after = destroyed.load();
          const bool ok = t == 0 ? mgr->AppTrace("S", LEVEL_INFO, "x", nullptr, false, false, "a")
                                 : mgr->Trace("S", LEVEL_INFO, "x", nullptr, false, false);
          if (after) ++late, lateAccepted += ok;
        }
      });
    }
    for (int i = 0; withEngine && i < 200; ++i) {
      BusyEngine* engine = new BusyEngine;
      EXPECT_TRUE(mgr->RegDebugEngine(engine));
      while (engine->calls.load() < 3) std::this_thread::yield();
      // Unregistered, the manager frees it; replaced, it comes back here.
      if (i % 2 == 0) {
        EXPECT_TRUE(mgr->UnRegDebugEngine(engine));
      } else {
        EXPECT_TRUE(mgr->RegDebugEngine(&spare));
        delete engine;
      }
    }
    if (withEngine) mgr->RegDebugEngine(new BusyEngine);
    while (calls.load() < 3000) std::this_thread::yield();
    ToviDebugMgr::Destroy();
    destroyed = true;
    // A new manager at once, which the old pointer must not reach either;
    // the old one's memory is taken first, so that the new one lands elsewhere.
    const std::unique_ptr<char[]> old(new char[sizeof(ToviDebugMgr)]);
    ASSERT_TRUE(ToviDebugMgr::Instance()->Init("new_", "", inst.logs.path(), "", false, true));
    for (std::thread& th : threads) th.join();
    EXPECT_EQ(lateAccepted.load(), 0);
    ToviDebugMgr::Destroy();
  }
}
