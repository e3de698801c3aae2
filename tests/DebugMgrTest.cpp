// The debug manager: its lifecycle, the sub-module registry and the debug
// engine, with real files, real threads and the real writer behind it.
#include "ToviDebugEngine.h"
#include "WriterTestSupport.h"

using namespace tovitest;

namespace {

typedef std::pair<std::bitset<32>, std::bitset<32>> Masks;
typedef std::map<std::string, Masks> ModuleMap;

Masks MasksOf(const std::string& name) {
  Masks masks;
  EXPECT_TRUE(ToviDebugMgr::Instance()->GetSubModuleInfo(name, masks.first, masks.second)) << name;
  return masks;
}

// An engine that reads itself again after giving up the processor, so that
// freeing it under a call is a use after free that ASan sees.
struct Engine : ToviDebugEngine {
  bool Trace(const std::string&, ToviLogLevel, const char*, const AsnType*, bool, bool) override {
    return ++count, std::this_thread::yield(), count.load() > 0;
  }
  bool AppTrace(const std::string&, ToviLogLevel, const char*, const AsnType*, bool, bool,
                const std::string&) override {
    return Trace("", LEVEL_INFO, nullptr, nullptr, false, false);
  }
  std::atomic<long> count{0};
};

}  // namespace

// A name that cannot start the names of files in the log directory leaves
// the manager uninitialised and writes nothing: a separator or "..", where
// that path exists too, or a name that fits the file system while its
// longest file name (26 characters more) does not; nothing of what it read
// is registered. The first Init that succeeds is the only one.
TEST(DebugMgr, InitRefusesUnusableNamesAndHappensOnce) {
  MgrRoot inst("MRB_level=1\nMRB_output=11\nGONE_level=1\n");
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  std::filesystem::create_directories(inst.logs / "sub/x");
  const long nameMax = ::pathconf(inst.logs.path().c_str(), _PC_NAME_MAX);
  for (const std::string& bad : {std::string(), std::string("sub/x"), std::string("a\\b"),
                                 std::string(".."), std::string(nameMax - 25, 'n')})
    EXPECT_FALSE(mgr->Init(bad, "", inst.logs.path(), "", false, false)) << bad;
  ModuleMap items;
  std::bitset<32> level, output;
  EXPECT_FALSE(mgr->IsInit() || mgr->Trace("MRB", LEVEL_ASSERT, "x", nullptr, false, true) ||
               mgr->GetAllModuleInfo(items) || mgr->GetSubModuleInfo("GONE", level, output));
  EXPECT_EQ(ListDir(inst.logs.path()), std::vector<std::string>{"sub"});
  // The longest name that fits is taken, and the configuration is read
  // again; an application's name joined to it would not fit.
  WriteFile(inst.Conf("default_debug.cfg"), "MRB_level=01\nsyslog_target=ftp://x:1\n");
  ASSERT_TRUE(mgr->Init(std::string(nameMax - 26, 'n'), "", inst.logs.path(), "HEAD\n", false, false));
  EXPECT_FALSE(mgr->AppTrace("debug", LEVEL_INFO, "app", nullptr, false, true, "a"));
  // A second Init, with other paths and another reading, changes nothing.
  WriteFile(inst.root / "other.cfg", "MRB_level=0001\n");
  EXPECT_TRUE(mgr->Init("other_", inst.root / "other.cfg", inst.logs / "never", "", false, false));
  EXPECT_EQ(MasksOf("MRB"), Masks(Bits({1}), Bits({1})));
  // A new name takes a copy of the masks of "debug"; bits out of range are
  // refused, and so are unknown names.
  EXPECT_TRUE(mgr->RegSubModuleInfo("COPY", Bits({7}), Bits({7}), true) &&
              !mgr->SetLogLevel("COPY", static_cast<ToviLogLevel>(32), true) &&
              !mgr->SetLogOutput("nobody", OUTPUT_FILE, true));
  EXPECT_EQ(MasksOf("COPY"), MasksOf("debug"));
  ToviDebugMgr::Destroy();
  EXPECT_FALSE(std::filesystem::exists(inst.logs / "never"));
  // A forwarding target that cannot be used leaves the writer be and says why.
  const std::string text = ReadFile(inst.logs / ListDir(inst.logs.path()).at(0));
  EXPECT_TRUE(text.find("HEAD\nThis is the first") != std::string::npos &&
              text.find("syslog WARN: syslog forwarding off: syslog_target \"ftp://x:1\" is not") != std::string::npos);
  // A fresh manager, and no log directory given: the default one under the root.
  std::filesystem::create_directories(inst.root / "var/logs");
  ASSERT_TRUE(ToviDebugMgr::Instance()->Init("dflt_", "", "", "", false, false));
  ToviDebugMgr::Destroy();
  EXPECT_EQ(ListDir(inst.root / "var/logs/mrblog").size(), 1u);
}

// Threads trace through engines that are swapped out under them, then
// through an engine or the writers while the manager is destroyed, and go on
// with the old pointer afterwards, while a new manager exists: every late
// call is refused, and ASan sees nothing freed in use.
TEST(DebugMgr, EnginesAndManagerOutliveTheCallsInThem) {
  MgrRoot inst;
  for (const bool withEngine : {true, false}) {
    ToviDebugMgr* mgr = ToviDebugMgr::Instance();
    ASSERT_TRUE(mgr->Init("gone_", "", inst.logs.path(), "", false, false));
    Engine spare;
    std::atomic<int> phase{0}, calls{0}, lateAccepted{0};  // phase 1: destroyed, 2: renewed
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
      threads.emplace_back([&, t] {
        // No output is asked for, so nothing reaches the disk.
        for (int renewed = 0; renewed < 200; ++calls) {
          const int now = phase.load();
          const bool ok = t == 0 ? mgr->AppTrace("S", LEVEL_INFO, "x", nullptr, false, false, "a")
                                 : mgr->Trace("S", LEVEL_INFO, "x", nullptr, false, false);
          if (now > 0) lateAccepted += ok, renewed += now == 2;
        }
      });
    }
    for (int i = 0; withEngine && i < 200; ++i) {
      Engine* engine = new Engine;
      EXPECT_TRUE(mgr->RegDebugEngine(engine));
      while (engine->count.load() < 3) std::this_thread::yield();
      // The engine takes every call as it was made, with nothing checked first.
      EXPECT_TRUE(i > 0 || mgr->AppTrace("S", static_cast<ToviLogLevel>(-1), nullptr, nullptr, false, false, "a/b"));
      // Unregistered, the manager frees it; replaced, it comes back here.
      EXPECT_TRUE(i % 2 == 0 ? mgr->UnRegDebugEngine(engine) : mgr->RegDebugEngine(&spare));
      if (i % 2 != 0) delete engine;
    }
    if (withEngine) mgr->RegDebugEngine(new Engine);
    while (calls.load() < 3000) std::this_thread::yield();
    ToviDebugMgr::Destroy();
    phase = 1;
    // A new manager, which the old pointer must not reach either.
    ASSERT_TRUE(ToviDebugMgr::Instance()->Init("new_", "", inst.logs.path(), "", false, true));
    phase = 2;
    for (std::thread& th : threads) th.join();
    EXPECT_EQ(lateAccepted.load(), 0);
    ToviDebugMgr::Destroy();
  }
}

// The debug file followed while the process runs: a replaced file that
// raises one sub-module's level takes effect within the interval, with one
// line naming it; a level the program raised stays while the file's key for
// it is unchanged; a file that cannot be read changes nothing and is said
// once; the limits stay as Init read them.
TEST(DebugMgr, LevelsFollowTheDebugFileWhileRunning) {
  const std::string first = "nConfigReloadSec=1\nnet_level=1\nnet_output=01\napi_level=1\napi_output=01\n";
  MgrRoot inst(first);
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  ASSERT_TRUE(mgr->Init("rl", "", inst.logs.path(), "", false, false));
  ASSERT_TRUE(mgr->SetLogLevel("api", LEVEL_INFO, true));
  EXPECT_TRUE(mgr->Trace("net", LEVEL_INFO, "not yet", nullptr, false, false));
  // An editor's save: a new file renamed over the old one.
  WriteFile(inst.Conf("new.cfg"), first + "net_level=1001\n");
  std::filesystem::rename(inst.Conf("new.cfg"), inst.Conf("default_debug.cfg"));
  const auto logged = [&](const std::string& text) { return OnlyLog(inst.logs.path()).find(text) != std::string::npos; };
  int n = 0;
  EXPECT_TRUE(WaitUntil([&] {
    mgr->Trace("net", LEVEL_INFO, ("raised " + std::to_string(n++)).c_str(), nullptr, false, false);
    return logged("net INFO: raised ");
  }, std::chrono::seconds(10)));
  EXPECT_TRUE(logged("MRB INFO: debug configuration reloaded: 1 sub-module(s) changed: net\n"));
  EXPECT_FALSE(logged("not yet"));
  EXPECT_EQ(MasksOf("api"), Masks(Bits({0, 3}), Bits({1})));
  // Gone: nothing changes, and it is said once.
  std::filesystem::rename(inst.Conf("default_debug.cfg"), inst.Conf("away.cfg"));
  EXPECT_TRUE(WaitUntil([&] { return logged("debug configuration not reloaded: "); }, std::chrono::seconds(10)));
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));
  EXPECT_EQ(MasksOf("net"), Masks(Bits({0, 3}), Bits({1})));
  ToviDebugMgr::Destroy();
  EXPECT_EQ(Occurrences(OnlyLog(inst.logs.path()), "debug configuration not reloaded: "), 1u);
}

// Threads trace without pause while the main thread, round after round,
// registers a sub-module that they already looked up and found missing,
// then lowers its level, and every tenth round puts a new manager in place
// of the old: each call honours what was set before it started, so every
// record of a raised level is in the file and none of a lowered one, and no
// call uses what a destroyed manager freed (ASan, TSan).
TEST(DebugMgr, CallsHonourEveryChangeMadeBeforeThem) {
  MgrRoot inst("debug_level=0000\n");
  struct Round {
    ToviDebugMgr* mgr;
    int n;
  };
  constexpr int kRounds = 120, kThreads = 3, kCallsPerRound = 20;
  std::vector<Round> rounds(kRounds);
  std::atomic<const Round*> now{nullptr};
  std::atomic<int> finished{0};
  std::atomic<bool> done{false};
  const auto name = [](int n) { return "s" + std::to_string(n); };
  const auto publish = [&](int n) {
    rounds[n] = {ToviDebugMgr::Instance(), n};
    now.store(&rounds[n], std::memory_order_release);
  };
  ASSERT_TRUE(ToviDebugMgr::Instance()->Init("hon0", "", inst.logs.path(), "", false, false));
  publish(0);
  ASSERT_TRUE(rounds[0].mgr->RegSubModuleInfo(name(0), Bits({LEVEL_INFO}), Bits({OUTPUT_FILE}), false));
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int seen = -1; !done.load();) {
        const Round* r = now.load(std::memory_order_acquire);
        // An even round raised s<n>, the odd one after lowered it again.
        const int raised = r->n & ~1;
        for (int i = 0; r->n != seen && i < kCallsPerRound; ++i) {
          EXPECT_TRUE(r->mgr->Trace(name(raised), LEVEL_INFO, r->n == raised ? "on" : "off", nullptr,
                                    false, false));
          r->mgr->Trace(name(raised + 2), LEVEL_INFO, "early", nullptr, false, false);
        }
        if (r->n != seen) seen = r->n, ++finished;
        // Goes on through a manager that may be destroyed under it.
        r->mgr->Trace("idle", LEVEL_INFO, "idle", nullptr, false, false);
      }
    });
  }
  for (int n = 1; n < kRounds; ++n) {
    while (finished.load() < kThreads * n) std::this_thread::yield();
    if (n % 10 == 0) {
      ToviDebugMgr::Destroy();
      EXPECT_TRUE(ToviDebugMgr::Instance()->Init("hon" + std::to_string(n), "", inst.logs.path(), "",
                                                 false, false));
    }
    ToviDebugMgr* mgr = ToviDebugMgr::Instance();
    EXPECT_TRUE(n % 2 == 0 ? mgr->RegSubModuleInfo(name(n), Bits({LEVEL_INFO}), Bits({OUTPUT_FILE}), false)
                           : mgr->SetLogLevel(name(n - 1), LEVEL_INFO, false));
    publish(n);
  }
  while (finished.load() < kThreads * kRounds) std::this_thread::yield();
  done = true;
  for (std::thread& th : threads) th.join();
  ToviDebugMgr::Destroy();
  std::string text;
  for (const std::string& file : ListDir(inst.logs.path())) text += ReadFile(inst.logs / file);
  EXPECT_EQ(Occurrences(text, "INFO: on\n"), std::size_t{kThreads * kCallsPerRound * kRounds / 2});
  EXPECT_EQ(Occurrences(text, "INFO: off\n") + Occurrences(text, "INFO: early\n"), 0u);
}
