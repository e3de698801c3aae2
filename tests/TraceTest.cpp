// The trace entry points through the manager: which calls are refused, how a
// sub-module's masks add to the caller's outputs, which writer and which file
// a record reaches, and the per-application writers under concurrent use.
#include "WriterTestSupport.h"

using namespace tovitest;

const char kTime[] = R"(\d\d:\d\d:\d\d\.\d{6}\.T)";

// A pattern for these records of this thread, one line each, each after an
// optional line `before`.
static std::string Lines(std::initializer_list<const char*> records, const std::string& before = "") {
  std::string pattern;
  for (const char* record : records)
    pattern += before + kTime + Hex(toviport::CurrentThreadId()) + " " + record + "\n";
  return pattern;
}

static bool Init(const MgrRoot& setup, bool traceOff = false) {
  return ToviDebugMgr::Instance()->Init("trc", "", setup.logs.path(), "hdr\n", false, traceOff);
}

TEST(Trace, RefusalsLeaveNothingAndMasksOnlyWiden) {
  // "debug": INFO only, console and file. "Quiet": INFO, no output.
  // "Loud": INFO, console only.
  MgrRoot setup("debug_level=0001\ndebug_output=11\nQuiet_level=0001\nQuiet_output=00\n"
                "Loud_level=0001\nLoud_output=10\n");
  const auto refused = [](ToviLogLevel level, const char* text) {
    ToviDebugMgr* mgr = ToviDebugMgr::Instance();
    EXPECT_FALSE(mgr->Trace("S", level, text, nullptr, true, true) ||
                 mgr->AppTrace("S", level, text, nullptr, false, true, "App") ||
                 mgr->AppTrace("S", level, text, nullptr, false, true, ""))
        << level;
  };
  refused(LEVEL_INFO, "before Init");
  // Trace-off: initialised, but with no writer to take anything.
  ASSERT_TRUE(Init(setup, true));
  refused(LEVEL_INFO, "trace off");
  ToviDebugMgr::Destroy();

  ASSERT_TRUE(Init(setup));
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  for (int level : {-1, 32}) refused(static_cast<ToviLogLevel>(level), "bad level");
  refused(LEVEL_INFO, nullptr);
  StdoutCapture out;
  const auto trace = [&](const char* sub, int level, const char* text, bool print, bool log) {
    EXPECT_TRUE(mgr->Trace(sub, static_cast<ToviLogLevel>(level), text, nullptr, print, log));
  };
  trace("Unreg", LEVEL_INFO, "a", false, false);  // both, via "debug"
  trace("Unreg", LEVEL_WARN, "b", false, false);  // held back
  trace("Quiet", LEVEL_INFO, "c", false, false);  // held back
  trace("Quiet", LEVEL_INFO, "d", true, false);   // console
  trace("Quiet", LEVEL_INFO, "e", false, true);   // file
  trace("Loud", LEVEL_INFO, "f", false, true);    // both
  trace("Loud", LEVEL_INFO, "g", false, false);   // not "debug"'s file
  trace("Loud", LEVEL_WARN, "h", false, true);    // file: bit clear
  trace("S", 31, "edge", false, true);            // the highest level, file only
  ASSERT_TRUE(mgr->SetLogLevel("debug", LEVEL_WARN, true));
  trace("Unreg", LEVEL_WARN, "i", false, false);  // both now
  trace("Unreg", LEVEL_ASSERT, "z", true, true);  // flushes b and c
  ToviDebugMgr::Destroy();

  // Standard output whole: these records and nothing else.
  const std::string printed = out.Restore();
  EXPECT_TRUE(std::regex_match(
      printed, std::regex(Lines({"Unreg INFO: a", "Quiet INFO: d", "Loud INFO: f", "Loud INFO: g",
                                 "Unreg WARN: i", "Unreg WARN: b", "Quiet INFO: c",
                                 "Unreg ASSERT: z"}))))
      << printed;
  EXPECT_EQ(ListDir(setup.logs.path()).size(), 1u) << "a refused call made a writer";
  // The writer's only file: these records and nothing else between the
  // opening lines and the stop lines.
  const std::string text = OnlyLog(setup.logs.path());
  EXPECT_TRUE(std::regex_match(
      text, std::regex("[^\n]*File create at .*\nhdr\nThis is the first log file\n.*\n" +
                       Lines({"Unreg INFO: a", "Quiet INFO: e", "Loud INFO: f", "Loud WARN: h",
                              "S edge", "Unreg WARN: i", "Unreg WARN: b", "Quiet INFO: c",
                              "Unreg ASSERT: z"},
                             "(Current date&time:.*\n)?") +
                       "thread handle output string exit\n(.*\n){3}File close at .*\n")))
      << text;
}

// The registry changes under the lookups of every call: tracing threads
// register names of their own and race to make the same application
// writers, one writer and one file per name, while one thread changes masks
// and reads them all.
TEST(TraceConcurrency, NewApplicationNamesRaceWhileMasksChange) {
  // Room for the main writer and 44 more.
  MgrRoot setup("debug_level=1111\ndebug_output=01\nnMaxFileNum=44\n");
  ASSERT_TRUE(Init(setup));
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  constexpr int kThreads = 6, kRounds = 200, kApps = 40;
  const auto app = [](int r) { return "A" + std::to_string(r % kApps); };
  std::atomic<int> arrived{0}, tracing{kThreads};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      // Each thread its own sub-module, so that a writer's header tells
      // which call made it; half the calls rely on "debug" for their file
      // output, which the mask thread only ever widens.
      const std::string sub = "T" + std::to_string(t);
      for (int r = 0; r < kRounds; ++r) {
        // The first calls for a new name are released together, so that
        // they race to make its writer.
        for (++arrived; r < kApps && arrived.load() < (r + 1) * kThreads;) std::this_thread::yield();
        const std::string text = app(r) + " " + std::to_string(r);
        EXPECT_TRUE(mgr->AppTrace(sub, LEVEL_INFO, text.c_str(), nullptr, false, r % 2, app(r)));
        EXPECT_TRUE(mgr->Trace(sub, LEVEL_INFO, text.c_str(), nullptr, false, r % 2));
        EXPECT_TRUE(mgr->RegSubModuleInfo(sub + "_" + std::to_string(r), 0xF, 0, r % 4 == 0));
      }
      --tracing;
    });
  }
  std::map<std::string, std::pair<std::bitset<32>, std::bitset<32>>> items;
  for (int k = 0; tracing.load() > 0 && k < 20000; ++k) {
    // Levels 0 to 3 and the file, for every name: what the calls need stays.
    EXPECT_TRUE(mgr->SetLogLevel("debug", static_cast<ToviLogLevel>(4 + k % 8), k % 2 == 0) &&
                (k % 10 != 0 || mgr->SetAllModuleInfo(0xF, 0x2, false)) &&
                (k % 10 != 5 || mgr->GetAllModuleInfo(items)));
    std::this_thread::yield();
  }
  for (auto& th : threads) th.join();
  ASSERT_TRUE(mgr->GetAllModuleInfo(items));
  // Application names that would leave the log directory, or are too long,
  // are refused; four more fill the table, which then refuses known names too.
  for (const std::string& name : {std::string("a/b"), std::string("a\\b"), std::string(".."), std::string(129, 'n')})
    EXPECT_FALSE(mgr->AppTrace("S", LEVEL_INFO, "x", nullptr, false, true, name)) << name;
  for (const char* name : {"B", "C", "D", "E"}) EXPECT_TRUE(mgr->AppTrace("S", LEVEL_INFO, "x", nullptr, false, false, name));
  EXPECT_FALSE(mgr->AppTrace("S", LEVEL_INFO, "x", nullptr, false, false, app(0)));
  ToviDebugMgr::Destroy();
  EXPECT_EQ(items.size(), 1u + kThreads * kRounds);  // "debug" and every name registered
  // One writer, so one file, for each name, headed by a tracing thread's
  // sub-module; in it each thread's records, all of them, in order.
  EXPECT_EQ(ListDir(setup.logs.path()).size(), 1u + kApps + 4);
  EXPECT_EQ(ListDir(setup.root.path()), std::vector<std::string>{"etc"});
  for (int a = -1; a < kApps; ++a) {
    const std::string prefix = a < 0 ? "trc" : "trc" + app(a) + "_";
    std::string text;
    for (const std::string& name : ListDir(setup.logs.path()))
      if (std::regex_match(name, std::regex(prefix + R"(\d{8}_\d{6}\.log)"))) text = ReadFile(setup.logs / name);
    EXPECT_TRUE(a < 0 || std::regex_search(text, std::regex("\nT[0-5]This is the first")));
    for (int t = 0; t < kThreads; ++t) {
      const std::string sub = "T" + std::to_string(t) + " ";
      std::vector<std::string> got, want;
      for (int r = 0; r < kRounds; ++r)
        if (a < 0 || r % kApps == a) want.push_back(sub + "INFO: " + app(r) + " " + std::to_string(r));
      for (const std::string& record : RecordTexts(text))
        if (record.rfind(sub, 0) == 0) got.push_back(record);
      EXPECT_EQ(got, want) << prefix << sub;
    }
  }
}
