// The trace entry points through the manager: which calls are refused, how a
// sub-module's masks add to the caller's outputs, which writer and which file
// a record reaches, and the per-application writers under concurrent use.
#include <gtest/gtest.h>

#include <atomic>
#include <bitset>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ToviDebugMgr.h"
#include "WriterTestSupport.h"
#include "port/ToviPort.h"

using namespace tovitest;

namespace {

const char kInitName[] = "trc";

std::string Hex(uint32_t value) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%x", value);
  return buf;
}

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    const std::size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      lines.push_back(text.substr(start) + "<no line end>");
      break;
    }
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

// One record line: "HH:MM:SS.uuuuuu.T<tid hex> <record text>", kept as
// "<tid hex> <record text>" so that expectations read naturally.
bool ParseRecord(const std::string& line, std::string& out) {
  static const char kShape[] = "dd:dd:dd.dddddd.T";
  const std::size_t shapeLen = sizeof kShape - 1;
  if (line.size() <= shapeLen) return false;
  for (std::size_t i = 0; i < shapeLen; ++i) {
    const unsigned char c = static_cast<unsigned char>(line[i]);
    if (kShape[i] == 'd' ? !std::isdigit(c) : line[i] != kShape[i]) return false;
  }
  std::size_t p = shapeLen;
  while (p < line.size() && (std::isdigit(static_cast<unsigned char>(line[p])) ||
                             (line[p] >= 'a' && line[p] <= 'f'))) {
    ++p;
  }
  if (p == shapeLen || p >= line.size() || line[p] != ' ' || line[shapeLen] == '0') return false;
  out = line.substr(shapeLen);
  return true;
}

// The record lines of a text; every other line goes to others, if given.
std::vector<std::string> Records(const std::string& text, std::vector<std::string>* others = nullptr) {
  std::vector<std::string> records;
  for (const std::string& line : SplitLines(text)) {
    std::string record;
    if (ParseRecord(line, record)) {
      records.push_back(record);
    } else if (others != nullptr) {
      others->push_back(line);
    }
  }
  return records;
}

// "YYYYMMDD_HHMMSS.log", optionally compressed.
bool IsTimeName(const std::string& rest) {
  static const char kShape[] = "dddddddd_dddddd.log";
  const std::size_t n = sizeof kShape - 1;
  if (rest.size() != n && !(rest.size() == n + 3 && rest.compare(n, 3, ".gz") == 0)) return false;
  for (std::size_t i = 0; i < n; ++i) {
    if (kShape[i] == 'd' ? !std::isdigit(static_cast<unsigned char>(rest[i])) : rest[i] != kShape[i]) {
      return false;
    }
  }
  return true;
}

// The log files of one writer: its prefix followed by a time name.
std::vector<std::string> FilesOf(const std::string& dir, const std::string& prefix) {
  std::vector<std::string> files;
  for (const std::string& name : ListDir(dir)) {
    if (name.compare(0, prefix.size(), prefix) == 0 && IsTimeName(name.substr(prefix.size()))) {
      files.push_back(name);
    }
  }
  return files;
}

std::string Content(const std::string& dir, const std::string& name) {
  return EndsWith(name, ".gz") ? ReadGz(dir + name) : ReadFile(dir + name);
}

// Everything a writer logged, over all its files.
std::vector<std::string> RecordsOf(const std::string& dir, const std::string& prefix) {
  std::vector<std::string> all;
  for (const std::string& name : FilesOf(dir, prefix)) {
    const std::vector<std::string> records = Records(Content(dir, name));
    all.insert(all.end(), records.begin(), records.end());
  }
  return all;
}

// The header that a writer's first file carries before "This is the first log file".
std::string HeaderOf(const std::string& content) {
  static const std::string kFirst = "This is the first log file";
  for (const std::string& line : SplitLines(content)) {
    if (EndsWith(line, kFirst)) return line.substr(0, line.size() - kFirst.size());
  }
  return "<no header line>";
}

// A fresh installation root with the given debug configuration; the manager
// is gone again when the test ends.
class TraceSetup {
public:
  explicit TraceSetup(const std::string& debugCfg) : env_("TOVI_ROOT", root_.path().c_str()) {
    ToviDebugMgr::Destroy();
    std::filesystem::create_directories(root_ / "etc/conf");
    WriteFile(root_ / "etc/conf/default_debug.cfg", debugCfg);
  }
  ~TraceSetup() { ToviDebugMgr::Destroy(); }
  TraceSetup(const TraceSetup&) = delete;
  TraceSetup& operator=(const TraceSetup&) = delete;

  bool Init(bool traceOff = false) {
    return ToviDebugMgr::Instance()->Init(kInitName, "", Logs(), "hdr\n", false, traceOff);
  }
  std::string Root() const { return root_.path(); }
  std::string Logs() const { return root_ / "logs/"; }

private:
  TempDir root_;
  ScopedEnv env_;
};

std::string Mine(const std::string& text) {
  return Hex(toviport::CurrentThreadId()) + " " + text;
}

ToviLogLevel Level(int n) { return static_cast<ToviLogLevel>(n); }

}  // namespace

TEST(Trace, RefusedCallsLeaveNothingBehind) {
  TraceSetup setup("debug_level=1111\ndebug_output=01\n");
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  ASSERT_NE(mgr, nullptr);

  EXPECT_FALSE(mgr->Trace("S", LEVEL_INFO, "early", nullptr, false, true));
  EXPECT_FALSE(mgr->AppTrace("S", LEVEL_INFO, "early", nullptr, false, true, "App"));
  EXPECT_FALSE(mgr->AppTrace("S", LEVEL_INFO, "early", nullptr, false, true, ""));
  EXPECT_EQ(ListDir(setup.Root()), std::vector<std::string>{"etc"});

  // Trace-off: initialised, but with no writer to take anything.
  ASSERT_TRUE(setup.Init(true));
  EXPECT_TRUE(mgr->IsInit());
  EXPECT_FALSE(mgr->Trace("S", LEVEL_INFO, "off", nullptr, false, true));
  EXPECT_FALSE(mgr->Trace("S", LEVEL_INFO, "off", nullptr, true, true));
  EXPECT_FALSE(mgr->AppTrace("S", LEVEL_INFO, "off", nullptr, false, true, "App"));
  EXPECT_FALSE(mgr->AppTrace("S", LEVEL_INFO, "off", nullptr, false, true, ""));
  ToviDebugMgr::Destroy();
  EXPECT_TRUE(ListDir(setup.Logs()).empty());
  EXPECT_FALSE(std::filesystem::exists(setup.Root() + "var"));

  mgr = ToviDebugMgr::Instance();
  ASSERT_TRUE(setup.Init());
  for (int level : {32, 33, -1, 1000}) {
    EXPECT_FALSE(mgr->Trace("S", Level(level), "bad level", nullptr, false, true)) << level;
    EXPECT_FALSE(mgr->AppTrace("S", Level(level), "bad level", nullptr, false, true, "App"));
    EXPECT_FALSE(mgr->AppTrace("S", Level(level), "bad level", nullptr, false, true, ""));
  }
  EXPECT_FALSE(mgr->Trace("S", LEVEL_INFO, nullptr, nullptr, false, true));
  EXPECT_FALSE(mgr->Trace("S", LEVEL_INFO, nullptr, nullptr, true, true));
  EXPECT_FALSE(mgr->AppTrace("S", LEVEL_INFO, nullptr, nullptr, false, true, "App"));
  EXPECT_FALSE(mgr->AppTrace("S", LEVEL_INFO, nullptr, nullptr, false, true, ""));
  // The two ends of the accepted range.
  EXPECT_TRUE(mgr->Trace("S", Level(31), "edge31", nullptr, false, true));
  EXPECT_TRUE(mgr->Trace("S", LEVEL_ASSERT, "edge0", nullptr, false, true));
  ToviDebugMgr::Destroy();

  const std::vector<std::string> main = FilesOf(setup.Logs(), kInitName);
  ASSERT_EQ(main.size(), 1u);
  EXPECT_EQ(ListDir(setup.Logs()), main) << "a refused call made a writer";
  EXPECT_EQ(Records(Content(setup.Logs(), main[0])),
            (std::vector<std::string>{Mine("S edge31"), Mine("S ASSERT: edge0")}));
}

TEST(Trace, SubModuleMasksWidenButNeverNarrow) {
  // "debug": INFO only, console and file. "Quiet": INFO, no output.
  // "Loud": INFO, console only.
  TraceSetup setup(
      "debug_level=0001\ndebug_output=11\n"
      "Quiet_level=0001\nQuiet_output=00\n"
      "Loud_level=0001\nLoud_output=10\n");
  ASSERT_TRUE(setup.Init());
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  StdoutCapture out;

  EXPECT_TRUE(mgr->Trace("Unreg", LEVEL_INFO, "a", nullptr, false, false));   // both, via "debug"
  EXPECT_TRUE(mgr->Trace("Unreg", LEVEL_WARN, "b", nullptr, false, false));   // held back
  EXPECT_TRUE(mgr->Trace("Quiet", LEVEL_INFO, "c", nullptr, false, false));   // held back
  EXPECT_TRUE(mgr->Trace("Quiet", LEVEL_INFO, "d", nullptr, true, false));    // console
  EXPECT_TRUE(mgr->Trace("Quiet", LEVEL_INFO, "e", nullptr, false, true));    // file
  EXPECT_TRUE(mgr->Trace("Loud", LEVEL_INFO, "f", nullptr, false, true));     // both
  EXPECT_TRUE(mgr->Trace("Loud", LEVEL_INFO, "g", nullptr, false, false));    // console, not "debug"'s file
  EXPECT_TRUE(mgr->Trace("Loud", LEVEL_WARN, "h", nullptr, false, true));     // file: bit clear
  ASSERT_TRUE(mgr->SetLogLevel("debug", LEVEL_WARN, true));
  EXPECT_TRUE(mgr->Trace("Unreg", LEVEL_WARN, "i", nullptr, false, false));   // both now
  EXPECT_TRUE(mgr->Trace("Unreg", LEVEL_ASSERT, "z", nullptr, true, true));   // flushes b and c
  ToviDebugMgr::Destroy();
  const std::string printed = out.Text();
  out.Restore();

  const std::vector<std::string> files = FilesOf(setup.Logs(), kInitName);
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(Records(Content(setup.Logs(), files[0])),
            (std::vector<std::string>{Mine("Unreg INFO: a"), Mine("Quiet INFO: e"),
                                      Mine("Loud INFO: f"), Mine("Loud WARN: h"),
                                      Mine("Unreg WARN: i"), Mine("Unreg WARN: b"),
                                      Mine("Quiet INFO: c"), Mine("Unreg ASSERT: z")}));
  std::vector<std::string> stray;
  EXPECT_EQ(Records(printed, &stray),
            (std::vector<std::string>{Mine("Unreg INFO: a"), Mine("Quiet INFO: d"),
                                      Mine("Loud INFO: f"), Mine("Loud INFO: g"),
                                      Mine("Unreg WARN: i"), Mine("Unreg WARN: b"),
                                      Mine("Quiet INFO: c"), Mine("Unreg ASSERT: z")}));
  EXPECT_TRUE(stray.empty()) << printed;
}

TEST(TraceApp, WriterPerApplicationName) {
  TraceSetup setup("debug_level=1111\ndebug_output=01\nnMaxFileNum=10\n");
  ASSERT_TRUE(setup.Init());
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  const std::string n128(128, 'n');

  EXPECT_TRUE(mgr->Trace("Main", LEVEL_INFO, "m1", nullptr, false, false));
  EXPECT_TRUE(mgr->AppTrace("Main", LEVEL_INFO, "m2", nullptr, false, false, ""));
  EXPECT_TRUE(mgr->AppTrace("First", LEVEL_INFO, "a1", nullptr, false, false, "App"));
  EXPECT_TRUE(mgr->AppTrace("Second", LEVEL_WARN, "a2", nullptr, false, false, "App"));
  EXPECT_TRUE(mgr->AppTrace("Long", LEVEL_INFO, "l1", nullptr, false, false, n128));
  EXPECT_FALSE(mgr->AppTrace("Long", LEVEL_INFO, "l2", nullptr, false, false, n128 + "n"));
  for (const char* name : {"a/b", "a\\b", "../up", "..\\up", "/abs", "sub/"}) {
    EXPECT_FALSE(mgr->AppTrace("Esc", LEVEL_INFO, "esc", nullptr, false, true, name)) << name;
  }
  EXPECT_TRUE(mgr->Trace("Main", LEVEL_INFO, "m3", nullptr, false, false));
  ToviDebugMgr::Destroy();

  EXPECT_EQ(ListDir(setup.Root()), (std::vector<std::string>{"etc", "logs"}));
  const std::string logs = setup.Logs();
  const std::vector<std::string> mainFiles = FilesOf(logs, kInitName);
  const std::vector<std::string> appFiles = FilesOf(logs, std::string(kInitName) + "App_");
  const std::vector<std::string> longFiles = FilesOf(logs, kInitName + n128 + "_");
  ASSERT_EQ(mainFiles.size(), 1u);
  ASSERT_EQ(appFiles.size(), 1u);
  ASSERT_EQ(longFiles.size(), 1u);
  EXPECT_EQ(ListDir(logs).size(), 3u) << "a refused name left something in the log directory";

  EXPECT_EQ(Records(Content(logs, mainFiles[0])),
            (std::vector<std::string>{Mine("Main INFO: m1"), Mine("Main INFO: m2"),
                                      Mine("Main INFO: m3")}));
  const std::string app = Content(logs, appFiles[0]);
  EXPECT_EQ(HeaderOf(app), "First") << "the first call's sub-module heads the file";
  EXPECT_EQ(Records(app),
            (std::vector<std::string>{Mine("First INFO: a1"), Mine("Second WARN: a2")}));
  const std::string longApp = Content(logs, longFiles[0]);
  EXPECT_EQ(HeaderOf(longApp), "Long");
  EXPECT_EQ(Records(longApp), std::vector<std::string>{Mine("Long INFO: l1")});
}

TEST(TraceApp, TableBoundCountsTheMainWriter) {
  TraceSetup setup("debug_level=1111\ndebug_output=01\nnMaxFileNum=2\n");
  ASSERT_TRUE(setup.Init());
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();

  EXPECT_TRUE(mgr->AppTrace("S", LEVEL_INFO, "one", nullptr, false, false, "One"));
  EXPECT_TRUE(mgr->AppTrace("S", LEVEL_INFO, "two", nullptr, false, false, "Two"));
  // Three entries now: from here on every application call is refused.
  EXPECT_FALSE(mgr->AppTrace("S", LEVEL_INFO, "three", nullptr, false, false, "Three"));
  EXPECT_FALSE(mgr->AppTrace("S", LEVEL_INFO, "one again", nullptr, false, false, "One"));
  EXPECT_FALSE(mgr->AppTrace("S", LEVEL_INFO, "two again", nullptr, false, false, "Two"));
  EXPECT_FALSE(mgr->AppTrace("S", LEVEL_INFO, "main via app", nullptr, false, false, ""));
  EXPECT_TRUE(mgr->Trace("S", LEVEL_INFO, "main", nullptr, false, false));
  ToviDebugMgr::Destroy();

  const std::string logs = setup.Logs();
  const std::vector<std::string> one = FilesOf(logs, "trcOne_");
  const std::vector<std::string> two = FilesOf(logs, "trcTwo_");
  const std::vector<std::string> main = FilesOf(logs, kInitName);
  ASSERT_EQ(one.size(), 1u);
  ASSERT_EQ(two.size(), 1u);
  ASSERT_EQ(main.size(), 1u);
  EXPECT_EQ(ListDir(logs).size(), 3u);
  EXPECT_EQ(Records(Content(logs, one[0])), std::vector<std::string>{Mine("S INFO: one")});
  EXPECT_EQ(Records(Content(logs, two[0])), std::vector<std::string>{Mine("S INFO: two")});
  EXPECT_EQ(Records(Content(logs, main[0])), std::vector<std::string>{Mine("S INFO: main")});

  // With a bound of 0 the main writer alone fills the table.
  WriteFile(setup.Root() + "etc/conf/default_debug.cfg", "debug_level=1111\ndebug_output=01\nnMaxFileNum=0\n");
  mgr = ToviDebugMgr::Instance();
  ASSERT_TRUE(setup.Init());
  EXPECT_FALSE(mgr->AppTrace("S", LEVEL_INFO, "none", nullptr, false, false, ""));
  EXPECT_FALSE(mgr->AppTrace("S", LEVEL_INFO, "none", nullptr, false, false, "Four"));
  EXPECT_TRUE(mgr->Trace("S", LEVEL_INFO, "still", nullptr, false, false));
  ToviDebugMgr::Destroy();
  EXPECT_TRUE(FilesOf(logs, "trcFour_").empty());
}

TEST(TraceConcurrency, NewApplicationNamesRaceWhileMasksChange) {
  TraceSetup setup(
      "debug_level=1111\ndebug_output=01\nnMaxFileNum=10\n"
      "Other_level=1111\nOther_output=00\n");
  ASSERT_TRUE(setup.Init());
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  constexpr int kThreads = 6;  // sub-modules T0 to T5
  constexpr int kRounds = 200;
  const std::vector<std::string> apps = {"X", "Y", "Z"};

  std::atomic<int> waiting{kThreads + 1};
  auto startTogether = [&] {
    waiting.fetch_sub(1);
    while (waiting.load() > 0) std::this_thread::yield();
  };
  std::vector<std::string> tids(kThreads);
  std::atomic<int> refused{0};
  std::atomic<int> tracing{kThreads};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      tids[t] = Hex(toviport::CurrentThreadId());
      // Each thread its own sub-module, so that a writer's header tells
      // which call made it.
      const std::string sub = "T" + std::to_string(t);
      startTogether();
      for (int r = 0; r < kRounds; ++r) {
        // Half the calls rely on "debug" for their file output; the mask
        // thread only ever widens that.
        const bool log = r % 2 == 0;
        const std::string& app = apps[r % apps.size()];
        std::string text = app + " " + std::to_string(t) + " " + std::to_string(r);
        if (!mgr->AppTrace(sub, LEVEL_INFO, text.c_str(), nullptr, false, log, app)) ++refused;
        text = "main " + std::to_string(t) + " " + std::to_string(r);
        if (!mgr->Trace(sub, LEVEL_INFO, text.c_str(), nullptr, false, log)) ++refused;
      }
      --tracing;
    });
  }
  threads.emplace_back([&] {
    startTogether();
    for (int k = 0; tracing.load() > 0 && k < 20000; ++k) {
      mgr->SetLogLevel("debug", Level(4 + k % 8), k % 2 == 0);
      mgr->SetLogOutput("debug", OUTPUT_FILE, true);
      mgr->SetLogLevel("Other", LEVEL_INFO, k % 2 == 0);
      mgr->SetLogOutput("Other", OUTPUT_CONSOLE, k % 3 == 0);
      mgr->RegSubModuleInfo("Extra" + std::to_string(k % 50), std::bitset<32>(0xF),
                            std::bitset<32>(0), false);
      std::this_thread::yield();
    }
  });
  for (auto& th : threads) th.join();
  EXPECT_EQ(refused.load(), 0);
  ToviDebugMgr::Destroy();

  // Every record once, in the right writer, from the thread that made it,
  // in that thread's order. Returns, per thread, the round after its last record.
  const int step = static_cast<int>(apps.size());
  auto expectEachOnce = [&](const std::string& prefix, const std::string& tag, int first,
                            int stride) {
    SCOPED_TRACE(prefix);
    std::vector<int> next(kThreads, first);
    int foreign = 0;
    int missing = 0;
    int repeated = 0;
    for (const std::string& record : RecordsOf(setup.Logs(), prefix)) {
      int t = -1;
      int r = -1;
      char tid[16] = {};
      char sub[8] = {};
      char tagSeen[8] = {};
      if (std::sscanf(record.c_str(), "%15s %7s INFO: %7s %d %d", tid, sub, tagSeen, &t, &r) != 5 ||
          t < 0 || t >= kThreads || tag != tagSeen || sub != "T" + std::to_string(t) ||
          tids[t] != tid) {
        if (++foreign <= 5) ADD_FAILURE() << "record in the wrong place: " << record;
        continue;
      }
      if (r < next[t]) {
        if (++repeated <= 5) ADD_FAILURE() << "repeated or out of order: " << record;
        continue;
      }
      missing += (r - next[t]) / stride;
      next[t] = r + stride;
    }
    EXPECT_EQ(foreign, 0);
    EXPECT_EQ(missing, 0);
    EXPECT_EQ(repeated, 0);
    return next;
  };

  EXPECT_EQ(expectEachOnce(kInitName, "main", 0, 1), std::vector<int>(kThreads, kRounds));
  EXPECT_EQ(FilesOf(setup.Logs(), kInitName).size(), 1u);
  const std::set<std::string> subModules = {"T0", "T1", "T2", "T3", "T4", "T5"};
  for (std::size_t a = 0; a < apps.size(); ++a) {
    const std::string prefix = kInitName + apps[a] + "_";
    int end = static_cast<int>(a);
    while (end < kRounds) end += step;
    EXPECT_EQ(expectEachOnce(prefix, apps[a], static_cast<int>(a), step),
              std::vector<int>(kThreads, end));
    // One writer made the files of this name, and a tracing thread's call named it.
    const std::vector<std::string> files = FilesOf(setup.Logs(), prefix);
    EXPECT_EQ(files.size(), 1u) << prefix;
    std::set<std::string> headers;
    for (const std::string& name : files) headers.insert(HeaderOf(Content(setup.Logs(), name)));
    EXPECT_EQ(headers.size(), 1u) << prefix;
    for (const std::string& header : headers) EXPECT_EQ(subModules.count(header), 1u) << header;
  }
  EXPECT_EQ(ListDir(setup.Logs()).size(), 1 + apps.size());
}
