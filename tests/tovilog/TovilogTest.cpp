// TovilogTest.cpp - tovilog on a file set made by real writers: the main
// writer "svc" and the application writer "svcbilling_", rolled over and
// archived, across a midnight that a change of time zone brings on; then
// the filters, the JSON, and damaged files.
#include <gtest/gtest.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <set>

#include "ToviDebugMgr.h"
#include "TovilogRun.h"
#include "WriterTestSupport.h"

namespace fs = std::filesystem;
using namespace tovitest;
using nlohmann::json;

namespace {

struct Traced {
  std::string id;  // the first three words of its text: "p0 svc r12"
  int phase;       // 0 before midnight, 1 after
  std::string writer;
  std::string module;
  int level;
  std::string thread;
};

// A POSIX time zone "west" of UTC by `offset` seconds (negative: east).
void SetZone(long offset) {
  const long a = offset < 0 ? -offset : offset;
  char zone[64];
  std::snprintf(zone, sizeof zone, "TVL%c%ld:%02ld:%02ld", offset < 0 ? '-' : '+', a / 3600,
                a / 60 % 60, a % 60);
  ::setenv("TZ", zone, 1);
  ::tzset();
}

std::string LocalDate() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char buf[16];
  std::strftime(buf, sizeof buf, "%Y-%m-%d", &local);
  return buf;
}

// Whether a file of dir, plain or archived, holds text.
bool DirHolds(const std::string& dir, const std::string& text) {
  for (const std::string& name : ListDir(dir)) {
    const std::string bytes = EndsWith(name, ".gz") ? ReadGz(dir + name) : ReadFile(dir + name);
    if (bytes.find(text) != std::string::npos) return true;
  }
  return false;
}

// A record cut off by damage has no third blank; its id is marked so.
std::string IdOf(const std::string& text) {
  std::size_t end = 0;
  for (int words = 0; words < 3 && end != std::string::npos; ++words) end = text.find(' ', end + 1);
  return end == std::string::npos ? text + " (cut)" : text.substr(0, end);
}

class TovilogSet : public ::testing::Test {
protected:
  // Made once per process; ctest runs every test in a process of its own.
  static void SetUpTestSuite() {
    zone_ = std::make_unique<ScopedEnv>("TZ", nullptr);
    root_ = std::make_unique<ScopedRoot>("nEachFileMaxSize=1\nnEachProcessMaxZipNum=50\n");
    dir_ = std::make_unique<TempDir>();
    ScopedEnv bom("TOVI_LOCALE", "UTF-8");
    // Local time 23:59:30 now; then the clock appears to jump 35 s over
    // midnight, as it would at the writers of a long-running process.
    long offset = (static_cast<long>(std::time(nullptr) % 86400) - 86370 + 86400) % 86400;
    if (offset > 43200) offset -= 86400;
    SetZone(offset);
    days_[0] = LocalDate();
    ToviDebugMgr* mgr = ToviDebugMgr::Instance();
    ASSERT_TRUE(mgr->Init("svc", "", dir_->path(), "svc 1.0\nbuild 7", false, false));
    Trace(mgr, 0);
    // The writers keep up, as they would over a real midnight: files made
    // after it are named after it.
    ASSERT_TRUE(WaitUntil([] {
      return DirHolds(dir_->path(), "p0 svc r1199 ") && DirHolds(dir_->path(), "p0 svcbilling_ r199 ");
    }));
    // A writer that starts as the clock passes midnight: it first archives a
    // large file of an earlier run, so its own file is made after midnight
    // and begins with records stamped before it, with no date line, as no
    // writer has handled a record of the new day yet.
    std::string filler(8 << 20, '\n');
    for (std::size_t i = 0; i < filler.size(); ++i) {
      if (i % 61 != 60) filler[i] = static_cast<char>('a' + i * i % 26);
    }
    WriteFile(*dir_ / "svclate_20000101_000000.log", filler);
    for (int i = 0; i < 10; ++i) {
      const std::string text = "p0 svclate_ r" + std::to_string(i) + " late";
      mgr->AppTrace("net", LEVEL_INFO, text.c_str(), nullptr, false, true, "late");
      records_.push_back({IdOf(text), 0, "svclate_", "net", 3, Hex(static_cast<uint32_t>(::gettid()))});
    }
    SetZone(offset - 35);
    days_[1] = LocalDate();
    // Each thread formats a second's local time once; the new zone shows
    // from the next second on.
    const std::time_t changed = std::time(nullptr);
    while (std::time(nullptr) == changed) ::usleep(10000);
    ASSERT_TRUE(WaitUntil([] { return DirHolds(dir_->path(), "p0 svclate_ r9 "); }));
    Trace(mgr, 1);
    const CountingAsn asn("Value ::= {\n  a 1\n}");
    mgr->Trace("net", LEVEL_INFO, "p1 svc asn multi\nline two", &asn, false, true);
    records_.push_back({"p1 svc asn", 1, "svc", "net", 3, Hex(static_cast<uint32_t>(::gettid()))});
    ToviDebugMgr::Destroy();
    fs::remove(*dir_ / "svclate_20000101_000000.log.gz");
  }
  static void TearDownTestSuite() {
    dir_.reset();
    root_.reset();
    zone_.reset();
  }

  // Main records from this thread (1 KB each, so the main writer rolls
  // over), application records from another.
  static void Trace(ToviDebugMgr* mgr, int phase) {
    static const char* const kModules[] = {"net", "db", "dbx"};
    static const int kLevels[] = {3, 1, 2, 0, 9};
    const std::string p = "p" + std::to_string(phase);
    std::thread app([&] {
      appThread_ = Hex(static_cast<uint32_t>(::gettid()));
      for (int i = 0; i < 200; ++i) {
        const std::string text = p + " svcbilling_ r" + std::to_string(i) + " app";
        mgr->AppTrace(kModules[i % 3], static_cast<ToviLogLevel>(kLevels[i % 5]), text.c_str(),
                      nullptr, false, true, "billing");
      }
    });
    const std::string mainThread = Hex(static_cast<uint32_t>(::gettid()));
    for (int i = 0; i < 1200; ++i) {
      const std::string text = p + " svc r" + std::to_string(i) + " " + std::string(1000, 'x');
      mgr->Trace(kModules[i % 3], static_cast<ToviLogLevel>(kLevels[i % 5]), text.c_str(),
                 nullptr, false, true);
    }
    app.join();
    for (int i = 0; i < 1200; ++i) {
      records_.push_back({p + " svc r" + std::to_string(i), phase, "svc", kModules[i % 3],
                          std::min(kLevels[i % 5], 4), mainThread});
      if (i < 200) {
        records_.push_back({p + " svcbilling_ r" + std::to_string(i), phase, "svcbilling_",
                            kModules[i % 3], std::min(kLevels[i % 5], 4), appThread_});
      }
    }
  }

  // The ids of the records in --json output, sorted.
  static std::vector<std::string> Ids(const std::vector<json>& objects) {
    std::vector<std::string> ids;
    for (const json& o : objects) {
      if (!o.contains("event")) ids.push_back(IdOf(o["text"]));
    }
    std::sort(ids.begin(), ids.end());
    return ids;
  }
  static std::vector<std::string> IdsWhere(const std::function<bool(const Traced&)>& pick) {
    std::vector<std::string> ids;
    for (const Traced& r : records_) {
      if (pick(r)) ids.push_back(r.id);
    }
    std::sort(ids.begin(), ids.end());
    return ids;
  }

  static inline std::unique_ptr<ScopedEnv> zone_;
  static inline std::unique_ptr<ScopedRoot> root_;
  static inline std::unique_ptr<TempDir> dir_;
  static inline std::string days_[2];
  static inline std::string appThread_;  // of the last phase
  static inline std::vector<Traced> records_;
};

}  // namespace

TEST_F(TovilogSet, FullTimeStampsMergeOrderAndJson) {
  const Result run = RunTovilog({dir_->path(), "--json"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  const std::vector<json> objects = JsonLines(run.out);
  EXPECT_EQ(Ids(objects), IdsWhere([](const Traced&) { return true; }));

  std::map<std::string, const Traced*> byId;
  for (const Traced& r : records_) byId[r.id] = &r;
  static const char* const kLevels[] = {"ASSERT", "ERROR", "WARN", "INFO", "4-31"};
  std::set<std::string> events;
  std::string last;
  for (const json& o : objects) {
    const std::string time = o["time"];
    if (o.contains("event")) {
      events.insert(o["event"].get<std::string>());
      EXPECT_TRUE(o["event"] != "header" || o["writer"] != "svc" || o["text"] == "svc 1.0\nbuild 7");
      continue;
    }
    // Merged by time: every writer's records, in one ascending order.
    EXPECT_LE(last, time.substr(0, 26)) << o;
    last = time.substr(0, 26);
    const Traced& r = *byId.at(IdOf(o["text"]));
    const std::string file = o["file"];
    EXPECT_EQ(json({time.substr(0, 16), o["writer"], file.substr(0, r.writer.size() + 2),
                    o["module"], o["level"], o["thread"]}),
              json({days_[r.phase] + (r.phase == 0 ? "T23:59" : "T00:00"), r.writer,
                    r.writer + "20", r.module, kLevels[r.level], r.thread}));
    if (r.id == "p1 svc asn") {
      EXPECT_EQ(json({o["text"], o["asn"]}),
                json({"p1 svc asn multi\nline two", "Value ::= {\n  a 1\n}"}));
    }
  }
  EXPECT_EQ(events, (std::set<std::string>{"create", "header", "first-file", "thread-handle", "date",
                                           "thread-exit", "stop", "close"}));
  EXPECT_EQ(RunTovilog({dir_->path(), "--json", "--quiet-events"}).out.find("\"event\""),
            std::string::npos);

  // Given files, in any order, are read in the order of their names.
  std::vector<std::string> files;
  for (const std::string& name : ListDir(dir_->path())) {
    if (name.rfind("svc20", 0) == 0) files.insert(files.begin(), dir_->path() + name);
  }
  files.push_back("--json");
  EXPECT_EQ(RunTovilog(files).out, RunTovilog({dir_->path(), "--prefix", "svc", "--json"}).out);
}

TEST_F(TovilogSet, TextIsTheFileLinesWithTheDateInFront) {
  // The application writer's only file; its records have no continuation.
  std::string expected;
  for (const std::string& name : ListDir(dir_->path())) {
    if (name.rfind("svcbilling_", 0) != 0) continue;
    for (const std::string& line : SplitLines(ReadFile(dir_->path() + name))) {
      if (line.size() > 17 && line.compare(15, 2, ".T") == 0) {
        expected += days_[line.find(" p1 ") != std::string::npos] + " " + line + "\n";
      }
    }
  }
  const Result run = RunTovilog({dir_->path(), "--prefix", "svcbilling_", "--quiet-events"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, expected);
}

TEST_F(TovilogSet, Filters) {
  struct Case {
    std::vector<std::string> args;
    std::function<bool(const Traced&)> pick;
  };
  auto phase = [](int p) { return [p](const Traced& r) { return r.phase == p; }; };
  const std::vector<Case> cases = {
      {{"--module", "d*x", "--module", "db"}, [](const Traced& r) { return r.module != "net"; }},
      {{"--level", "ERROR+"}, [](const Traced& r) { return r.level <= 1; }},
      {{"--level", "warn", "--level", "9"}, [](const Traced& r) { return r.level == 2 || r.level == 4; }},
      {{"--thread", appThread_}, [](const Traced& r) { return r.thread == appThread_; }},
      {{"--prefix", "svcbilling_"}, [](const Traced& r) { return r.writer == "svcbilling_"; }},
      {{"--grep", "^p1 svc r1[0-9] "},
       [](const Traced& r) { return r.id.size() == 10 && r.id.rfind("p1 svc r1", 0) == 0; }},
      {{"-i", "--grep", "APP$"}, [](const Traced& r) { return r.writer == "svcbilling_"; }},
      {{"--since", days_[1] + " 00:00:00"}, phase(1)},
      {{"--until", days_[1] + "T00:00"}, phase(0)},
      {{"--since", "00:00"}, phase(1)},
      {{"--since", "-1h", "--until", "-30m"}, [](const Traced&) { return false; }},
      {{"--module", "net", "--level", "INFO", "--since", "00:00"},
       [](const Traced& r) { return r.module == "net" && r.level == 3 && r.phase == 1; }},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args{dir_->path(), "--json"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const Result run = RunTovilog(args);
    const std::vector<std::string> want = IdsWhere(c.pick);
    EXPECT_EQ(run.status, want.empty() ? 1 : 0) << ::testing::PrintToString(c.args) << run.err;
    EXPECT_EQ(Ids(JsonLines(run.out)), want) << ::testing::PrintToString(c.args);
  }

  EXPECT_EQ(RunTovilog({dir_->path(), "--count", "--level", "ERROR+"}).out,
            std::to_string(IdsWhere([](const Traced& r) { return r.level <= 1; }).size()) + "\n");
  const json stats = json::parse(RunTovilog({dir_->path(), "--stats", "--json"}).out);
  EXPECT_EQ(stats["records"], records_.size());
  EXPECT_EQ(stats["levels"]["ERROR"], IdsWhere([](const Traced& r) { return r.level == 1; }).size());
  EXPECT_EQ(stats["threads"][appThread_], 200u);
  std::size_t perMinute = 0, busiest = 0;
  for (const auto& minute : stats["minutes"]) {
    perMinute += minute.get<std::size_t>();
    busiest = std::max(busiest, minute.get<std::size_t>());
  }
  EXPECT_EQ(perMinute, records_.size());
  EXPECT_EQ(stats["busiest"][0]["records"], busiest);
}

TEST_F(TovilogSet, EachDamageGivesOneWarningAndTheRestIsRead) {
  std::map<std::string, std::string> fileOf;
  for (const json& o : JsonLines(RunTovilog({dir_->path(), "--json", "--quiet-events"}).out)) {
    fileOf[IdOf(o["text"])] = o["file"];
  }
  std::vector<std::string> archives, plain;  // the main writer's; the application writer's
  for (const std::string& name : ListDir(dir_->path())) {
    if (name.rfind("svc2", 0) == 0) (EndsWith(name, ".gz") ? archives : plain).push_back(name);
    if (name.rfind("svcbilling_", 0) == 0) plain.push_back(name);
  }
  ASSERT_EQ(archives.size(), 2u);
  ASSERT_EQ(plain.size(), 2u);
  // Rewrites the bytes of a file in place.
  auto edit = [](const std::function<void(std::string&)>& change) {
    return [change](const std::string& p) {
      std::string bytes = ReadFile(p);
      change(bytes);
      WriteFile(p, bytes);
    };
  };
  std::string garbage;
  for (int i = 0; i < 600; ++i) garbage += static_cast<char>(i * 37 % 256);
  struct Case {
    std::string file;
    std::function<void(const std::string& path)> damage;
    std::string warning;  // empty: none
    bool lossy;           // records of the damaged file may be lost
    std::vector<std::string> args;
  };
  const std::vector<Case> cases = {
      {archives[0], edit([](std::string& b) { b.resize(b.size() / 2); }), "cut off", true, {}},
      {archives[1], edit([](std::string& b) { b.replace(10, 4, "\xff\xff\xff\xff"); }), "corrupt",
       true, {}},
      // In the middle of a record head, as a crash while writing leaves it.
      {plain[0], edit([](std::string& b) { b.resize(b.find('\n', 20000) + 10); }), "no line end",
       true, {}},
      {plain[1], edit([&](std::string& b) { b.insert(b.find('\n', b.size() / 2) + 1, garbage + "\n"); }),
       "binary data", false, {}},
      {"svc20000101_000000.log", [](const std::string& p) { fs::create_directory(p); },
       "cannot read", false, {}},
      // Outside --since: never opened, so its damage goes unnoticed.
      {"svc20000101_000001.log.gz",
       [](const std::string& p) {
         WriteFile(p, "not gzip");
         const utimbuf old{946684800, 946684800};
         ::utime(p.c_str(), &old);
       },
       "", false, {"--since", "-1h"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file + " " + c.warning);
    TempDir copy;
    fs::copy(dir_->path(), copy.path(), fs::copy_options::recursive);
    c.damage(copy / c.file);
    std::vector<std::string> args{copy.path(), "--json", "--quiet-events"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const Result run = RunTovilog(args);
    EXPECT_EQ(run.status, 0);
    // One line, naming the file and what is wrong with it.
    EXPECT_TRUE(c.warning.empty() ? run.err.empty()
                                  : Occurrences(run.err, "\n") == 1 &&
                                        run.err.find(copy / c.file + ": ") != std::string::npos &&
                                        run.err.find(c.warning) != std::string::npos)
        << run.err;
    // Every record of the other files, once; a record is never doubled.
    const std::vector<std::string> ids = Ids(JsonLines(run.out));
    EXPECT_EQ(std::adjacent_find(ids.begin(), ids.end()), ids.end());
    for (const auto& [id, file] : fileOf) {
      if (!c.lossy || file != c.file) {
        EXPECT_TRUE(std::binary_search(ids.begin(), ids.end(), id)) << id;
      }
    }
  }
}

TEST(Tovilog, BadUsageAndNothingReadableExitWithTwo) {
  TempDir empty, unreadable;
  fs::create_directory(unreadable / "svc20000101_000000.log");
  const std::vector<std::vector<std::string>> cases = {
      {empty.path()}, {unreadable.path()}, {empty / "missing"}, {},
      {empty.path(), "--level", "LOUD"}, {empty.path(), "--since", "yesterday"},
      {empty.path(), "--grep", "("},     {empty.path(), "--follow", "--count"},
  };
  for (const auto& args : cases) {
    const Result run = RunTovilog(args);
    EXPECT_TRUE(run.status == 2 && !run.err.empty()) << ::testing::PrintToString(args);
  }
  EXPECT_EQ(RunTovilog({"--help"}).status, 0);
}
