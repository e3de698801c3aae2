// TovilogTest.cpp - tovilog on a file set made by real writers: the main
// writer "svc" and the application writer "svcbilling_", rolled over and
// archived, across a midnight that a change of time zone brings on: full
// time stamps, the merge, the JSON and text output, and the filters.
#include "TovilogRun.h"
#include "logwriter/RecordJournal.h"
#include "logwriter/RecordQueue.h"
#include "logwriter/TimeStamp.h"
#include "logwriter/ToviLogRecord.h"

namespace fs = std::filesystem;
using namespace tovitest;
using nlohmann::json;

namespace {

struct Traced {
  std::string id;  // the first three words of its text: "p0 svc r12"
  int phase;       // 0 before midnight, 1 after
  std::string writer, module;
  int level;
  std::string thread;
};

// Sets a POSIX time zone "west" of UTC by `offset` seconds (negative: east);
// returns the local date in it.
std::string SetZone(long offset) {
  char zone[64];
  std::snprintf(zone, sizeof zone, "TVL%c%ld:%02ld:%02ld", offset < 0 ? '-' : '+',
                std::labs(offset) / 3600, std::labs(offset) / 60 % 60, std::labs(offset) % 60);
  ::setenv("TZ", zone, 1);
  ::tzset();
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  std::strftime(zone, sizeof zone, "%Y-%m-%d", localtime_r(&now, &local));
  return zone;
}

// The first three words of a record's text: its id.
std::string IdOf(const std::string& text) {
  return text.substr(0, text.find(' ', text.find(' ', text.find(' ') + 1) + 1));
}

// Made once per process; ctest runs every test in a process of its own.
ScopedRoot* g_root;
TempDir* g_dir;
std::string g_days[2], g_appThread;  // the application writer's thread of the last phase
std::vector<Traced> g_records;

std::vector<Traced> Run(int phase, const std::string& writer, int count, const std::string& tail) {
  static const char* const kModules[] = {"net", "db", "dbx"};
  static const int kLevels[] = {3, 1, 2, 0, 9};
  std::vector<Traced> traced;
  for (int i = 0; i < count; ++i) {
    traced.push_back({"p" + std::to_string(phase) + " " + writer + " r" + std::to_string(i), phase,
                      writer, kModules[i % 3], std::min(kLevels[i % 5], 4), Hex(toviport::CurrentThreadId())});
    ToviDebugMgr::Instance()->AppTrace(kModules[i % 3], static_cast<ToviLogLevel>(kLevels[i % 5]),
                                       (traced.back().id + " " + tail).c_str(), nullptr, false,
                                       true, writer == "svc" ? "" : "billing");
  }
  return traced;
}

// The main writer's records from this thread, 1 KB each so that it rolls
// over; the application writer's from another.
void Trace(int phase) {
  std::vector<Traced> app;
  std::thread other([&] { app = Run(phase, "svcbilling_", 200, "app"); });
  const std::vector<Traced> main = Run(phase, "svc", 1200, std::string(1000, 'x'));
  other.join();
  g_records.insert(g_records.end(), main.begin(), main.end());
  g_records.insert(g_records.end(), app.begin(), app.end());
  g_appThread = app[0].thread;
}

class TovilogSet : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    ::unsetenv("TZ");
    g_root = new ScopedRoot("nEachFileMaxSize=1\nnEachProcessMaxZipNum=50\n");
    g_dir = new TempDir;
    ScopedEnv bom("TOVI_LOCALE", "UTF-8");
    // Local time 23:59:30 now; then the clock appears to jump 35 s over
    // midnight, as it would at the writers of a long-running process.
    long offset = (static_cast<long>(std::time(nullptr) % 86400) - 86370 + 86400) % 86400;
    if (offset > 43200) offset -= 86400;
    g_days[0] = SetZone(offset);
    ASSERT_TRUE(ToviDebugMgr::Instance()->Init("svc", "", g_dir->path(), "svc 1.0\nbuild 7", false, false));
    Trace(0);
    // The writers keep up, as they would over a real midnight: files made
    // after it are named after it.
    ASSERT_TRUE(WaitUntil([] {
      std::string all;
      for (const std::string& name : ListDir(g_dir->path())) all += ReadGz(*g_dir / name);
      return all.find("p0 svc r1199 ") != std::string::npos &&
             all.find("p0 svcbilling_ r199 ") != std::string::npos;
    }));
    g_days[1] = SetZone(offset - 35);
    // Each thread formats a second's local time once; the new zone shows
    // from the next second on.
    for (const std::time_t changed = std::time(nullptr); std::time(nullptr) == changed;)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    Trace(1);
    const CountingAsn asn("Value ::= {\n  a 1\n}");
    ToviDebugMgr::Instance()->Trace("net", LEVEL_INFO, "p1 svc asn multi\nline two", &asn, false, true);
    g_records.push_back({"p1 svc asn", 1, "svc", "net", 3, g_records[0].thread});
    ToviDebugMgr::Destroy();
  }
  static void TearDownTestSuite() { delete g_dir, delete g_root; }

  // The ids of the records in --json output, and of those picked, sorted.
  static std::vector<std::string> Ids(const std::vector<json>& objects) {
    std::multiset<std::string> ids;
    for (const json& o : objects)
      if (!o.contains("event")) ids.insert(IdOf(o["text"]));
    return {ids.begin(), ids.end()};
  }
  static std::vector<std::string> IdsWhere(const std::function<bool(const Traced&)>& pick) {
    std::multiset<std::string> ids;
    for (const Traced& r : g_records)
      if (pick(r)) ids.insert(r.id);
    return {ids.begin(), ids.end()};
  }
};

}  // namespace

TEST_F(TovilogSet, FullTimeStampsMergeOrderAndJson) {
  const Result run = RunTovilog({g_dir->path(), "--json"});
  ASSERT_TRUE(run.status == 0 && run.err.empty()) << run.err;
  const std::vector<json> objects = JsonLines(run.out);
  EXPECT_EQ(Ids(objects), IdsWhere([](const Traced&) { return true; }));
  std::map<std::string, const Traced*> byId;
  for (const Traced& r : g_records) byId[r.id] = &r;
  static const char* const kLevels[] = {"ASSERT", "ERROR", "WARN", "INFO", "4-31"};
  std::set<std::string> events;
  std::string last;
  for (const json& o : objects) {
    const std::string time = o["time"], file = o["file"];
    if (o.contains("event")) {
      events.insert(o["event"].get<std::string>());
      EXPECT_TRUE(o["event"] != "header" || o["writer"] != "svc" || o["text"] == "svc 1.0\nbuild 7");
      continue;
    }
    // Merged by time: every writer's records, in one ascending order.
    EXPECT_LE(last, time.substr(0, 26)) << o;
    last = time.substr(0, 26);
    const Traced& r = *byId.at(IdOf(o["text"]));
    EXPECT_EQ(json({time.substr(0, 16), o["writer"], file.substr(0, r.writer.size() + 2),
                    o["module"], o["level"], o["thread"]}),
              json({g_days[r.phase] + (r.phase == 0 ? "T23:59" : "T00:00"), r.writer,
                    r.writer + "20", r.module, kLevels[r.level], r.thread}));
    if (r.id == "p1 svc asn") {
      EXPECT_EQ(json({o["text"], o["asn"]}),
                json({"p1 svc asn multi\nline two", "Value ::= {\n  a 1\n}"}));
    }
  }
  EXPECT_EQ(events, (std::set<std::string>{"create", "header", "first-file", "thread-handle", "date",
                                           "thread-exit", "stop", "close"}));
  EXPECT_EQ(RunTovilog({g_dir->path(), "--json", "--quiet-events"}).out.find("\"event\""),
            std::string::npos);
  // As text, each record as it stands in the file, with its date in front.
  std::string lines;
  for (const std::string& line : SplitLines(ReadFile(*g_dir / ListDir(g_dir->path()).back())))
    if (line.size() > 17 && line.compare(15, 2, ".T") == 0) lines += g_days[line.find(" p1 ") != std::string::npos] + " " + line + "\n";
  EXPECT_EQ(RunTovilog({g_dir->path(), "--prefix", "svcbilling_", "--quiet-events"}).out, lines);
}

TEST_F(TovilogSet, FiltersAndCounts) {
  const std::vector<std::pair<std::vector<std::string>, std::function<bool(const Traced&)>>> cases = {
      {{"--module", "d*x", "--module", "db"}, [](const Traced& r) { return r.module != "net"; }},
      {{"--level", "ERROR+"}, [](const Traced& r) { return r.level <= 1; }},
      {{"--level", "warn", "--level", "9"}, [](const Traced& r) { return r.level == 2 || r.level == 4; }},
      {{"--thread", g_appThread}, [](const Traced& r) { return r.thread == g_appThread; }},
      {{"-i", "--grep", "APP$"}, [](const Traced& r) { return r.writer == "svcbilling_"; }},
      {{"--since", g_days[1] + " 00:00:00"}, [](const Traced& r) { return r.phase == 1; }},
      {{"--since", "-1h", "--until", "-30m"}, [](const Traced&) { return false; }},
      {{"--module", "net", "--until", g_days[1] + "T00:00"}, [](const Traced& r) { return r.module == "net" && r.phase == 0; }},
  };
  for (const auto& [filter, pick] : cases) {
    std::vector<std::string> args{g_dir->path(), "--json"};
    args.insert(args.end(), filter.begin(), filter.end());
    const Result run = RunTovilog(args);
    const std::vector<std::string> want = IdsWhere(pick);
    EXPECT_EQ(run.status, want.empty() ? 1 : 0) << ::testing::PrintToString(filter) << run.err;
    EXPECT_EQ(Ids(JsonLines(run.out)), want) << ::testing::PrintToString(filter);
  }
  EXPECT_EQ(RunTovilog({g_dir->path(), "--count", "--level", "ERROR+"}).out,
            std::to_string(IdsWhere([](const Traced& r) { return r.level <= 1; }).size()) + "\n");
  EXPECT_EQ(RunTovilog({g_dir->path(), "--level", "LOUD"}).status, 2) << "bad usage";
  const json stats = json::parse(RunTovilog({g_dir->path(), "--stats", "--json"}).out);
  EXPECT_EQ(json({stats["records"], stats["threads"][g_appThread]}), json({g_records.size(), 200}));
}

// What a dead run left in its journal comes back at the next start under a
// line that tovilog shows as an event, records after it; the crash report
// is an event too, with its frames as a list in JSON.
TEST(TovilogEvents, RecoveredRecordsAndTheCrashReport) {
  TempDir dir;
  {
    RecordJournal dead;  // a run that accepted two records and died
    dead.FindDead(dir.path(), "rec");
    int error = 0;
    ASSERT_TRUE(dead.Create(error)) << error;
    const RecordQueue queue(0);
    for (const char* text : {"mkept 0", "mkept 1"}) {
      RecordJournal::Entry* entry = dead.Reserve(7, queue);
      ASSERT_NE(entry, nullptr);
      entry->thread = 0x2a, entry->level = LEVEL_INFO, entry->flags = RecordJournal::kToFile;
      entry->nameLength = 1, entry->messageLength = 6, entry->asn = nullptr;
      entry->seconds = std::time(nullptr), entry->microseconds = 0;
      std::memcpy(entry->Payload(), text, 7);
      RecordJournal::Publish(entry);
    }
  }
  auto writer = NewWriter(dir.path(), "rec");
  writer->AddLog("crash", LEVEL_ASSERT, "Fatal signal SIGSEGV (code 1, address 0x0) in thread 0x2a of process 7\n"
                 "#0 0x1 a.out+0x1 f() f.cpp:1\n#1 0x2 libc.so.6+0x2", nullptr, false, true);
  writer.reset();

  const std::vector<json> items = JsonLines(RunTovilog({dir.path(), "--json"}).out);
  std::vector<std::string> seen;
  for (const json& item : items) {
    if (item.contains("event") && item["event"] == "recovered") seen.push_back(item["text"]);
    if (item.contains("event") && item["event"] == "crash") seen.push_back(item["frames"].dump());
    if (item.contains("module") && item["module"] == "m") seen.push_back(item["text"]);
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"2 record(s) recovered from process " + std::to_string(::getpid()),
                                            "kept 0", "kept 1",
                                            R"(["#0 0x1 a.out+0x1 f() f.cpp:1","#1 0x2 libc.so.6+0x2"])"}));
  EXPECT_EQ(ListDir(dir.path(), true), ListDir(dir.path())) << "the dead journal stays";
  // journalctl's words and short options say what the long forms say.
  const std::time_t now = std::time(nullptr);
  std::tm day{};
  ::localtime_r(&now, &day);
  day.tm_mday -= 1, day.tm_hour = day.tm_min = day.tm_sec = 0, day.tm_isdst = -1;
  const std::time_t midnight = std::mktime(&day);
  char iso[32];
  std::strftime(iso, sizeof iso, "%Y-%m-%dT%H:%M:%S", std::localtime(&midnight));
  const Result words = RunTovilog({dir.path(), "--since", "yesterday", "--until", "now", "-p", "INFO", "-o", "json"});
  const Result longs = RunTovilog({dir.path(), "--since", iso, "--level", "INFO", "--json"});
  EXPECT_EQ(words.status, 0) << words.err;
  EXPECT_EQ(words.out, longs.out);
  EXPECT_NE(words.out.find("kept 1"), std::string::npos);
  EXPECT_EQ(RunTovilog({dir.path(), "-o", "xml"}).status, 2);
}
