// The log writer when things go wrong: directories that cannot be reached,
// a queue that fills up behind a writer that cannot write, a console that
// nobody reads, a directory removed under a running writer, and a file-size
// limit. What matters in each case is that no thread hangs, no record is lost
// or written twice without being accounted for, and nothing leaks.
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <csignal>

#include "WriterTestSupport.h"
#include "logwriter/RecordJournal.h"

using namespace tovitest;

// Generous enough for a loaded sanitizer build; only a hang exceeds it.
constexpr double kHangBound = 5.0;
// Small records in a full ring: each costs its entry and a few bytes.
constexpr std::size_t kRingAtLeast = RecordJournal::kRingBytes / 128;
constexpr std::size_t kRingAtMost = RecordJournal::kRingBytes / sizeof(RecordJournal::Entry);
const std::string kTag = "fault INFO: ";

static double Seconds(const std::function<void()>& f) {
  const auto start = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

static bool Log(ToviLogWriter& writer, const std::string& text, const AsnType* asn = nullptr, bool print = false) {
  return writer.AddLog("fault", LEVEL_INFO, text.c_str(), asn, print, true);
}

// The records of a log text must be want, in order. Reports the first
// difference only: the sequences here run to a quarter of a million entries.
static void ExpectRecords(const std::string& text, std::vector<std::string> want) {
  for (std::string& w : want) w = kTag + w;
  const std::vector<std::string> got = RecordTexts(text);
  const auto diff = std::mismatch(got.begin(), got.end(), want.begin(), want.end());
  EXPECT_TRUE(diff.first == got.end() && diff.second == want.end())
      << "first difference at record " << diff.first - got.begin() << " of " << got.size();
}

// 2000 records of some 200 bytes where no file may grow past `bytes`: 0 when
// every record was queued and the files hold each of them once, in order,
// whole, within the limit, each file with its head.
static int WriteUnderAFileSizeLimit(rlim_t bytes) {
  ::alarm(60);  // a hang becomes a failed exit instead of a stalled run
  std::signal(SIGXFSZ, SIG_IGN);
  const struct rlimit limit {bytes, bytes};
  if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
  TempDir dir;
  std::vector<std::string> want;
  bool ok = true;
  {
    auto writer = NewWriter(dir.path(), "disk", "header\n", 10, 1u << 30, 100);
    for (int i = 0; i < 2000; ++i) {
      want.push_back(std::to_string(i) + std::string(200, 'd'));
      ok = Log(*writer, want.back()) && ok;
      want.back() = kTag + want.back();
    }
  }
  std::string all;
  for (const std::string& name : ListDir(dir.path())) {
    const std::string text = ReadGz(dir / name);
    ok = ok && text.size() <= bytes && text.rfind("File create at time ", 0) == 0 &&
         text.back() == '\n';
    all += text;
  }
  return ok && RecordTexts(all) == want ? 0 : 1;
}

// Writers whose directory cannot be reached (a regular file stands in a
// parent's place, a name is too long) keep their records, refuse one on a
// full queue after about a second, and do not hold up the stop; nothing is
// made in the file's place. Once the parent can be made, the queue is
// written, then one line with the number refused, then what followed.
TEST(LogWriterFault, UnreachableDirectoryRefusesWhenFullAndStopsPromptly) {
  TempDir dir;
  WriteFile(dir / "plain", "not a directory");
  // The ASN.1 values show to ASan a clone freed too early or never.
  const CountingAsn value("value");
  std::unique_ptr<ToviLogWriter> writers[] = {NewWriter(dir / "plain/logs/", "p", "header\n"),
                                              NewWriter(dir / "long", std::string(300, 'x'))};
  std::vector<std::string> want;
  // Long enough for at least one retry after the first failed creation.
  std::this_thread::sleep_for(std::chrono::milliseconds(1200));
  std::size_t accepted = 0;
  for (auto& writer : writers) {
    // Until the ring is full, and the first refusal.
    accepted = 0;
    for (std::string text = "record 0"; accepted <= kRingAtMost && Log(*writer, text, accepted % 7 ? nullptr : &value);
         text = "record " + std::to_string(++accepted)) {
    }
    EXPECT_GE(accepted, kRingAtLeast);
    EXPECT_LE(accepted, kRingAtMost);
    EXPECT_TRUE(writer->AddLog("fault", LEVEL_INFO, "held", &value, false, false));
    // A writer that cannot write is not waited for: the refusal is at once.
    EXPECT_LT(Seconds([&] { EXPECT_FALSE(Log(*writer, "refused", &value)); }), 0.5);
    EXPECT_EQ(writer->OutputQueueCount() + writer->DiscardQueueCount(), accepted + 1);
    if (want.empty()) {
      for (std::size_t i = 0; i < accepted; ++i) want.push_back("record " + std::to_string(i));
    }
  }
  EXPECT_LT(Seconds([&] { writers[1].reset(); }), kHangBound);
  EXPECT_EQ(ReadFile(dir / "plain"), "not a directory");

  std::filesystem::remove(dir / "plain");
  ASSERT_TRUE(WaitUntil([&] { return writers[0]->OutputQueueCount() < want.size(); }));
  for (int i = 0; i < 10; ++i) {
    want.push_back("after-" + std::to_string(i));
    EXPECT_TRUE(Log(*writers[0], want.back()));
  }
  EXPECT_LT(Seconds([&] { writers[0].reset(); }), kHangBound);
  const std::string text = OnlyLog(dir / "plain/logs/");
  ExpectRecords(text, want);
  // One count for both refusals, before the records that followed them.
  EXPECT_EQ(Occurrences(text, "record(s) dropped"), 1u);
  const std::string dropLine = "\n2 record(s) dropped while the log file could not be written\n";
  EXPECT_LT(text.find(dropLine), text.find(kTag + "after-0\n"));
}

// A console that nobody reads (a pipe left full) holds neither the file nor
// the stop: every record reaches the file, and those the console did not
// take whole are counted there.
TEST(LogWriterFault, AStalledConsoleHoldsNeitherTheFileNorTheStop) {
  TempDir dir;
  int pipeFds[2];
  ASSERT_EQ(::pipe(pipeFds), 0);
  std::fflush(stdout);
  const int savedStdout = ::dup(1);
  ::dup2(pipeFds[1], 1);
  ::close(pipeFds[1]);
  auto writer = NewWriter(dir.path(), "stall", "", 0);
  std::vector<std::string> want(50000);
  bool accepted = true;
  for (std::size_t i = 0; i < want.size(); ++i) {
    want[i] = "shown-" + std::to_string(i);
    accepted = Log(*writer, want[i], nullptr, true) && accepted;
  }
  const double stop = Seconds([&] { writer.reset(); });
  ::dup2(savedStdout, 1);
  ::close(savedStdout);
  std::string printed;
  ::fcntl(pipeFds[0], F_SETFL, O_NONBLOCK);
  char buf[65536];
  for (ssize_t n; (n = ::read(pipeFds[0], buf, sizeof buf)) > 0;) printed.append(buf, n);
  ::close(pipeFds[0]);

  EXPECT_TRUE(accepted);
  EXPECT_LT(stop, kHangBound);
  const std::string text = OnlyLog(dir.path());
  ExpectRecords(text, want);
  // What the pipe holds is the first records, whole, and maybe a piece.
  const std::size_t shown = Occurrences(printed, "\n");
  ExpectRecords(printed.substr(0, printed.rfind('\n') + 1),
                std::vector<std::string>(want.begin(), want.begin() + shown));
  const std::string notShown = std::to_string(want.size() - shown) +
                               " record(s) not shown on the console: it did not take them in time\n";
  EXPECT_EQ(Occurrences(text, notShown), 1u) << text.substr(text.size() - 300);
}

// The log directory taken from under a running writer: removed with its
// parent, moved away whole, or removed while its file has a second link
// that keeps the file alive. Within about a second the writer has a new
// file at its path (and the tree, when it was gone), says how many records
// may have gone into the old file, and loses no record after that.
TEST(LogWriterFault, RemovedOrMovedDirectoryIsNoticedRecreatedAndCounted) {
  TempDir dir;
  const std::string logDir = dir / "a/logs/";
  const std::vector<std::function<void()>> takeAway = {
      [&] { std::filesystem::remove_all(dir / "a"); },
      [&] { std::filesystem::rename(dir / "a", dir / "moved"); },
      [&] {
        std::filesystem::create_hard_link(logDir + ListDir(logDir).at(0), dir / "kept.log");
        std::filesystem::remove_all(dir / "a");
      }};
  for (std::size_t way = 0; way < takeAway.size(); ++way) {
    SCOPED_TRACE(way);
    auto writer = NewWriter(logDir, "rm", "", 0);
    EXPECT_TRUE(Log(*writer, "before"));
    ASSERT_TRUE(WaitUntil([&] { return Occurrences(OnlyLog(logDir), kTag + "before\n") == 1; }));
    takeAway[way]();
    std::vector<std::string> want;
    for (int i = 0; i < 300; ++i) {
      want.push_back("after-" + std::to_string(i));
      EXPECT_TRUE(Log(*writer, want.back()));
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    writer.reset();

    const std::string text = OnlyLog(logDir);
    const std::size_t lost = want.size() - RecordTexts(text).size();
    ASSERT_LT(lost, want.size());
    ExpectRecords(text, std::vector<std::string>(want.begin() + lost, want.end()));
    const std::size_t counted = text.find(" record(s) may be lost: the log file was removed");
    ASSERT_NE(counted, std::string::npos) << text.substr(0, 400);
    const std::size_t lineStart = text.rfind('\n', counted) + 1;
    // The count may include what was written just before the removal.
    const std::size_t unsure = std::stoul(text.substr(lineStart, counted - lineStart));
    EXPECT_TRUE(unsure == lost || unsure == lost + 1) << unsure << " for " << lost;
    std::filesystem::remove_all(dir / "a");
  }
}

// Writes that fail for a file-size limit: each file is cut back to its last
// whole record and the records go on in a new file, so none is lost, none is
// torn or doubled, and no file passes the limit.
TEST(LogWriterFault, FailedWritesMoveOnToANewFileWithoutLoss) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(std::exit(WriteUnderAFileSizeLimit(64 * 1024)), ::testing::ExitedWithCode(0), "");
}

// What a forked child wrote to its standard output and standard error, and
// how it ended. The child's stderr is a pipe that nobody reads while it runs
// when fillErr is set, else one read after it ends.
struct ChildRun {
  std::string out, err;
  int status = -1;
};
static ChildRun RunChild(const std::function<int()>& body, bool fillErr = false) {
  int out[2], err[2];
  if (::pipe(out) != 0 || ::pipe(err) != 0) return {};
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(out[1], 1), ::dup2(err[1], 2);
    if (fillErr) {
      ::fcntl(2, F_SETFL, O_NONBLOCK);
      while (::write(2, "x", 1) == 1) {}
      ::fcntl(2, F_SETFL, 0);
    }
    ::_exit(body());
  }
  ::close(out[1]), ::close(err[1]);
  ChildRun run;
  ::waitpid(pid, &run.status, 0);
  char buf[4096];
  for (int fd : {out[0], err[0]}) {
    ::fcntl(fd, F_SETFL, O_NONBLOCK);
    for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0;) (fd == out[0] ? run.out : run.err).append(buf, n);
    ::close(fd);
  }
  return run;
}

// A log directory that cannot be used is said on standard error, once per
// kind of failure, whatever the retries; stdout gets nothing; a directory
// that becomes usable is said too, and its records arrive; a writer that
// stops without a file says what it could not write; and a full stderr pipe
// holds neither the writer nor its stop.
TEST(LogWriterFault, UnusableDirectoryIsSaidOnceOnStandardError) {
  TempDir dir;
  const std::string lead = "tovibaseutil: cannot create log files in ";
  const std::string wait = "; records wait up to about 10 MB, then are counted as dropped\n";
  const auto traceThrough = [](const std::string& logDir, int records, const std::function<void()>& meanwhile) {
    auto writer = NewWriter(logDir, "u", "", 0);
    for (int i = 0; i < records; ++i) Log(*writer, "r" + std::to_string(i));
    meanwhile();
    return Seconds([&] { writer.reset(); }) < kHangBound ? 0 : 1;
  };
  const auto pause = [] { std::this_thread::sleep_for(std::chrono::milliseconds(2500)); };

  WriteFile(dir / "afile", "");
  ChildRun run = RunChild([&] { return traceThrough(dir / "afile", 3, pause); });
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, lead + dir / "afile/: Not a directory" + wait + "tovibaseutil: stopped with no log file in " +
                         dir / "afile/; 3 record(s) could not be written\n");

  // Not writable: root is refused by a read-only mount where others are
  // refused by the mode.
  const std::string ro = dir / "ro";
  std::filesystem::create_directories(ro);
  const bool mounted = ::geteuid() == 0 && ::mount("tmpfs", ro.c_str(), "tmpfs", MS_RDONLY, "size=64k") == 0;
  if (!mounted) ::chmod(ro.c_str(), 0555);
  run = RunChild([&] { return traceThrough(ro, 1, pause); });
  if (mounted) ::umount(ro.c_str());
  EXPECT_EQ(run.err, lead + ro + "/: " + std::strerror(mounted ? EROFS : EACCES) + wait +
                         "tovibaseutil: stopped with no log file in " + ro + "/; 1 record(s) could not be written\n");

  // Usable after a second: the records wait and then arrive.
  WriteFile(dir / "late", "");
  run = RunChild([&] {
    return traceThrough(dir / "late/logs", 5, [&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(1200));
      std::filesystem::remove(dir / "late");
      WaitUntil([&] { return !ListDir(dir / "late/logs").empty(); });
    });
  });
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, lead + dir / "late/logs/: Not a directory" + wait + "tovibaseutil: log files in " +
                         dir / "late/logs/ can be written again; 0 record(s) were dropped meanwhile\n");
  ExpectRecords(OnlyLog(dir / "late/logs"), {"r0", "r1", "r2", "r3", "r4"});

  run = RunChild([&] { return traceThrough(dir / "afile", 3, pause); }, true);
  EXPECT_EQ(run.status, 0) << "the stop waited for a full stderr pipe";
}

// A disk that fills up after the start and stays full until the stop: the
// calls never wait on the writer and the stop is prompt; once space comes
// back, the next start writes what was kept for it, and every record is in
// a file or counted in one.
TEST(LogWriterFault, AFullDiskNeverStallsTheCallersAndLosesNothingUncounted) {
  if (::geteuid() != 0) GTEST_SKIP() << "mounting a small file system needs root";
  TempDir dir;
  const std::string disk = dir / "disk";
  std::filesystem::create_directories(disk);
  // Room for the record journal and about half a megabyte of logs.
  ASSERT_EQ(::mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=11m"), 0);
  constexpr int kThreads = 2, kCalls = 15000;
  const ChildRun run = RunChild([&] {
    // Every archive kept, and texts that compress badly, so the disk fills.
    auto writer = NewWriter(disk, "full", "", 0, 64 * 1024, 1 << 20);
    std::vector<std::thread> threads;
    const double calls = Seconds([&] {
      for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
          uint32_t noise = 2654435761u * (t + 1);
          for (int i = 0; i < kCalls; ++i) {
            std::string text = std::to_string(t) + "-" + std::to_string(i) + " ";
            for (int c = 0; c < 100; ++c) text += static_cast<char>('a' + (noise = noise * 1664525u + 1013904223u) % 26);
            Log(*writer, text);
          }
        });
      for (auto& thread : threads) thread.join();
    });
    return calls < kHangBound && Seconds([&] { writer.reset(); }) < kHangBound ? 0 : 1;
  });
  EXPECT_EQ(run.status, 0) << "calls or the stop waited on a full disk";
  EXPECT_NE(run.err.find("record(s) kept for the next start"), std::string::npos) << run.err;
  ASSERT_EQ(::mount("tmpfs", disk.c_str(), "tmpfs", MS_REMOUNT, "size=64m"), 0);
  NewWriter(disk, "full", "", 0, 64 * 1024, 1 << 20).reset();

  std::size_t inFiles = 0, counted = 0;
  for (const std::string& name : ListDir(disk)) {
    const std::string text = ReadGz(disk + "/" + name);
    inFiles += Occurrences(text, kTag);
    for (const std::string& line : SplitLines(text))
      if (line.find(" record(s) dropped") != std::string::npos) counted += std::stoul(line);
  }
  EXPECT_EQ(ListDir(disk, true), ListDir(disk)) << "a journal left behind";
  ::umount(disk.c_str());
  EXPECT_EQ(inFiles + counted, std::size_t{kThreads} * kCalls) << inFiles << " in files\n" << run.err;
}
