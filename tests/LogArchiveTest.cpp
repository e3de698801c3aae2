// LogArchiveTest.cpp - what a writer does to its log directory: compressing
// its newest plain log file, pruning its oldest compressed ones, sparing the
// copy of its run's first file, finishing a compression that a crash cut
// short, leaving a file that cannot be compressed, and never touching
// anything else.
#include <cctype>

#include "WriterTestSupport.h"

namespace fs = std::filesystem;
using namespace tovitest;

// The name that the writer with prefix "app_" gives a file made at second t.
static std::string LogName(std::time_t t) {
  std::tm local{};
  char buf[64];
  std::strftime(buf, sizeof buf, "app_%Y%m%d_%H%M%S.log", localtime_r(&t, &local));
  return buf;
}

// The writer's own regular files ending in `ending`, sorted: the prefix,
// fifteen characters of time, the ending.
static std::vector<std::string> Logs(const std::string& dir, const std::string& prefix,
                              const std::string& ending) {
  std::vector<std::string> out;
  for (const std::string& name : ListDir(dir)) {
    if (name.size() == prefix.size() + 15 + ending.size() && name.rfind(prefix, 0) == 0 &&
        EndsWith(name, ending) && fs::is_regular_file(dir + name))
      out.push_back(name);
  }
  return out;
}

// Every entry of dir: a file by its bytes, a directory by how much it holds.
static std::map<std::string, std::string> Snapshot(const std::string& dir) {
  std::map<std::string, std::string> out;
  for (const std::string& name : ListDir(dir)) {
    const std::string path = dir + name;
    out[name] = fs::is_directory(path) ? "dir of " + std::to_string(ListDir(path).size())
                                       : "file:" + ReadFile(path);
  }
  return out;
}

// The writer's plain log file that sorts after `after`, once it shows up;
// empty when none does.
static std::string WaitForLogAfter(const std::string& dir, const std::string& prefix,
                            const std::string& after) {
  std::vector<std::string> logs;
  WaitUntil([&] { return !(logs = Logs(dir, prefix, ".log")).empty() && logs.back() > after; });
  return !logs.empty() && logs.back() > after ? logs.back() : "";
}

// Runs a writer with prefix "app_" in dir until its own file shows up.
static std::string RunWriter(const std::string& dir, const std::string& after) {
  auto writer = NewWriter(dir, "app_", "", 100, 1u << 20);
  return WaitForLogAfter(dir, "app_", after);
}

// Log-like bytes that a text-mode reader or a sloppy copy would mangle.
static std::string OddBytes(const std::string& tag) {
  return "File create at time 2024-01-01 00:00:00.\r\n" + tag + std::string("\0\x01\xff\n", 4) +
         std::string(3000, 'x') + "\nno final line end";
}

TEST(LogArchive, StartCompressesTheNewestTrimsTheOldestAndTouchesNothingElse) {
  TempDir dir;
  // Each foreign entry either sorts before every real compressed file, so
  // that a loose match would prune it first, or after every real plain file,
  // so that a loose match would compress it instead of the real newest one.
  for (const char* name : {"app_19990101_000000.tar.gz", "app_19990101_000000.tar",
                           "app_19990101_00000.log.gz", "APP_19990101_000000.log.gz", "app_x.log",
                           "app_20991231_235959.LOG", "app_20991231_235959.log.bak"})
    WriteFile(dir / name, OddBytes(name));
  // Directories named like a newest plain file and an oldest compressed
  // one, and one where a plain file's archive would go: that file stays.
  for (const char* name : {"app_20991231_235959.log", "app_19990101_000000.log.gz",
                           "app_19990102_000000.log.gz"})
    fs::create_directory(dir / name);
  WriteFile(dir / "app_19990102_000000.log", OddBytes("no room"));
  // This second and the next three are taken by plain files, one more by a
  // compressed one; the newest plain one is compressed at start, which takes
  // its second too. The writer's own file must reuse none of these names.
  const std::time_t now = std::time(nullptr);
  for (int i = 0; i < 4; ++i) WriteFile(dir / LogName(now + i), OddBytes(std::to_string(i)));
  const std::string newest = LogName(now + 3);
  WriteFile(dir / (LogName(now + 4) + ".gz"), "taken by a compressed file");
  std::vector<std::string> gz;
  for (int y = 2010; y < 2022; ++y)
    WriteFile(dir / gz.emplace_back("app_" + std::to_string(y) + "0101_000000.log.gz"), "");
  std::map<std::string, std::string> expected = Snapshot(dir.path());

  const std::string own = RunWriter(dir.path(), LogName(now + 4));

  // Of fourteen compressed files the four oldest went. The run's own file
  // stays plain: nothing is compressed at stop.
  EXPECT_EQ(ReadGz(dir / (newest + ".gz")), OddBytes("3"));
  expected.erase(newest);
  for (int i = 0; i < 4; ++i) expected.erase(gz[i]);
  std::map<std::string, std::string> after = Snapshot(dir.path());
  EXPECT_EQ(after.erase(newest + ".gz") + after.erase(own), 2u);
  EXPECT_EQ(after, expected);
}

TEST(LogArchive, FirstFileOfTheRunIsSparedAndCountsTowardTheLimit) {
  // The compressed files expected after the start and after each of two
  // roll-overs: "f" and "s" stand for the copies of this run's first and
  // second files, a digit for one of ten files of an earlier run dated ahead
  // of this one, so that this run's first copy is the oldest.
  struct Case { std::string prefix; int limit; std::vector<std::string> steps; };
  for (const Case& c : std::vector<Case>{
           {"app_", 10, {"0123456789", "f123456789", "f123456789"}},
           // A key cut at the first "." would match every file and spare them all.
           {"a.b_", 10, {"0123456789", "f123456789", "f123456789"}},
           {"app_", 1, {"9", "f", "f"}},
           // The limit compares unsigned: a negative one removes nothing.
           {"app_", -1, {"0123456789", "f0123456789", "fs0123456789"}}}) {
    SCOPED_TRACE(c.prefix + " limit " + std::to_string(c.limit));
    TempDir dir;
    std::vector<std::string> earlier;
    for (int i = 0; i < 10; ++i)
      WriteFile(dir / earlier.emplace_back(c.prefix + "20990101_00000" + std::to_string(i) + ".log.gz"), "");
    // Every record with file output rolls the file over.
    auto writer = NewWriter(dir.path(), c.prefix, "", 100, 1, c.limit);
    std::vector<std::string> plain{""};
    for (std::size_t step = 0; step < c.steps.size(); ++step) {
      const std::string record = "record #" + std::to_string(step) + "#";
      ASSERT_TRUE(step == 0 || writer->AddLog("sub", LEVEL_INFO, record.c_str(), nullptr, false, true));
      plain.push_back(WaitForLogAfter(dir.path(), c.prefix, plain.back()));
      ASSERT_FALSE(plain.back().empty());
      std::vector<std::string> expected, archives;
      for (char k : c.steps[step])
        expected.push_back(std::isdigit(k) ? earlier[k - '0'] : plain[k == 'f' ? 1 : 2] + ".gz");
      // Roll-overs archive on a thread of their own: wait for it to finish.
      WaitUntil([&] { return (archives = Logs(dir.path(), c.prefix, ".log.gz")) == expected; });
      EXPECT_EQ(archives, expected) << "after step " << step;
    }
    writer.reset();
    EXPECT_EQ(Occurrences(ReadGz(dir / (plain[1] + ".gz")), "record #1#"), 1u);
  }
}

TEST(LogArchive, ALiveFileIsNeverTakenAndACrashedCompressionIsFinishedOnce) {
  TempDir dir;
  // Two instances of one service: the second one's start must leave the
  // first one's open file alone.
  auto first = NewWriter(dir.path(), "app_", "", 100, 1u << 20);
  const std::string firstFile = WaitForLogAfter(dir.path(), "app_", "");
  ASSERT_FALSE(firstFile.empty());
  ASSERT_FALSE(RunWriter(dir.path(), firstFile).empty());
  ASSERT_TRUE(first->AddLog("sub", LEVEL_INFO, "after the second start", nullptr, false, true));
  first.reset();
  EXPECT_EQ(Occurrences(ReadFile(dir / firstFile), "after the second start"), 1u);

  // A compression killed before its rename left a partial temporary; one
  // killed after it left a complete archive beside its plain file; another
  // left a temporary whose plain file is gone.
  TempDir crashed;
  const std::string plain = "app_20240101_000000.log";
  WriteFile(crashed / plain, OddBytes("plain"));
  WriteFile(crashed / (plain + ".gz.tmp"), "\x1f\x8b partial");
  WriteFile(crashed / "app_20230101_000000.log.gz.tmp", "\x1f\x8b orphan");
  const std::string own = RunWriter(crashed.path(), plain);
  ASSERT_FALSE(own.empty());
  EXPECT_EQ(ReadGz(crashed / (plain + ".gz")), OddBytes("plain"));
  EXPECT_EQ(Logs(crashed.path(), "app_", ".log.gz.tmp").size() + fs::exists(crashed / plain), 0u);

  fs::remove(crashed / own);
  const std::string later = "app_20250101_000000.log";
  WriteFile(crashed / later, OddBytes("later"));
  WriteFile(crashed / (later + ".gz"), "the complete archive");
  ASSERT_FALSE(RunWriter(crashed.path(), later).empty());
  EXPECT_EQ(ReadGz(crashed / (later + ".gz")), "the complete archive");
  EXPECT_FALSE(fs::exists(crashed / later));
}

// Log files, archives and the directories the library makes are for the
// owner and the owner's group only under the usual umask of 022; the
// configured modes replace those (a malformed one is ignored), and the
// umask still takes its share; the record journal is the owner's alone.
TEST(LogArchive, ModesOfFilesArchivesAndDirectories) {
  struct Case {
    std::string cfg;
    mode_t umask;
    unsigned file, dir;
  };
  const auto modeOf = [](const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 0777 : 01000u;
  };
  const mode_t saved = ::umask(022);
  for (const Case& c : {Case{"", 022, 0640, 0750}, Case{"log_file_mode=0644\nlog_dir_mode=0755\n", 022, 0644, 0755},
                        Case{"", 077, 0600, 0700}, Case{"log_file_mode=0999\nlog_dir_mode=rwx\n", 022, 0640, 0750}}) {
    SCOPED_TRACE(c.cfg);
    ::umask(c.umask);
    MgrRoot root(c.cfg + "nEachFileMaxSize=1\n");
    const std::string logs = root.logs / "a/b/";
    ToviDebugMgr* mgr = ToviDebugMgr::Instance();
    ASSERT_TRUE(mgr->Init("m", "", logs, "", false, false));
    for (int i = 0; i < 9000; ++i) mgr->Trace("x", LEVEL_ERROR, std::string(120, 'r').c_str(), nullptr, false, true);
    std::size_t journals = 0;
    for (const std::string& name : ListDir(logs, true)) {
      if (name[0] != '.') continue;
      ++journals;
      EXPECT_EQ(modeOf(logs + name), 0600u) << name;
    }
    EXPECT_EQ(journals, 1u);
    ToviDebugMgr::Destroy();
    EXPECT_EQ(modeOf(root.logs / "a"), c.dir);
    EXPECT_EQ(modeOf(logs), c.dir);
    const std::vector<std::string> names = ListDir(logs);
    EXPECT_TRUE(std::any_of(names.begin(), names.end(), [](const std::string& n) { return EndsWith(n, ".gz"); }));
    for (const std::string& name : names) EXPECT_EQ(modeOf(logs + name), c.file) << name;
  }
  ::umask(saved);
}
