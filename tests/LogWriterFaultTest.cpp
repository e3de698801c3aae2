// The log writer when things go wrong: directories that cannot be reached,
// a queue that fills up behind a writer that cannot write or that is merely
// held up, a directory removed under a running writer, a full disk, and a
// stop with records still pending. What matters in each case is that no thread hangs, no record is
// lost or written twice without being accounted for, and nothing leaks.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "WriterTestSupport.h"
#include "logwriter/ToviLogRecord.h"
#include "logwriter/ToviLogWriter.h"

namespace fs = std::filesystem;
using tovitest::CountingAsn;
using tovitest::ListDir;
using tovitest::ReadFile;
using tovitest::TempDir;
using tovitest::WaitUntil;

namespace {

using Clock = std::chrono::steady_clock;

// Generous enough for a loaded sanitizer build; only a hang exceeds it.
constexpr double kHangBound = 5.0;
// What the output queue holds before producers have to wait.
constexpr std::size_t kQueueBytes = 10240000;
constexpr std::size_t kQueueRecords = kQueueBytes / sizeof(ToviLogRecord);

const char kSubModule[] = "fault";
const std::string kTag = " fault INFO: ";

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double TimedDelete(ToviLogWriter* writer) {
  const Clock::time_point start = Clock::now();
  delete writer;
  return SecondsSince(start);
}

void Report(const std::string& what, double seconds) {
  std::printf("[ measured ] %s: %.3f s\n", what.c_str(), seconds);
  std::string key = what;
  for (char& c : key) {
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  }
  ::testing::Test::RecordProperty(key, std::to_string(seconds));
}

bool Log(ToviLogWriter& writer, const std::string& text, const AsnType* asn = nullptr) {
  return writer.AddLog(kSubModule, LEVEL_INFO, text.c_str(), asn, false, true);
}

// The texts of this file's records, in the order in which they appear.
std::vector<std::string> Messages(const std::string& text) {
  std::vector<std::string> out;
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    const std::size_t tag = text.find(kTag, pos);
    if (tag != std::string::npos && tag < end) {
      const std::size_t from = tag + kTag.size();
      out.emplace_back(text, from, end - from);
    }
    pos = end + 1;
  }
  return out;
}

// Reports the first difference only: the sequences here run to a quarter of
// a million entries.
void ExpectSameSequence(const std::vector<std::string>& got, const std::vector<std::string>& want) {
  const std::size_t n = std::min(got.size(), want.size());
  for (std::size_t i = 0; i < n; ++i) {
    if (got[i] != want[i]) {
      ADD_FAILURE() << "first difference at record " << i << ": got '" << got[i] << "', want '"
                    << want[i] << "'";
      return;
    }
  }
  EXPECT_EQ(got.size(), want.size()) << "sequences agree on their first " << n << " records";
}

std::size_t CountOf(const std::string& text, const std::string& needle) {
  std::size_t n = 0;
  for (std::size_t pos = text.find(needle); pos != std::string::npos;
       pos = text.find(needle, pos + needle.size())) {
    ++n;
  }
  return n;
}

std::vector<std::string> LogFiles(const std::string& dir) {
  std::vector<std::string> out;
  for (const std::string& name : ListDir(dir)) {
    if (tovitest::EndsWith(name, ".log")) out.push_back(name);
  }
  return out;
}

std::string FillText(std::size_t i) { return "fill-" + std::to_string(i); }

// Queues records until the writer refuses one. Every record carries an ASN.1
// value so that a record freed too early or never shows in the live count.
// Returns how many were queued; lastCall gets the duration of the refused call.
std::size_t FillUntilRefused(ToviLogWriter& writer, double& lastCall) {
  const CountingAsn value("fill");
  for (std::size_t i = 0; i <= kQueueRecords + 1; ++i) {
    const Clock::time_point start = Clock::now();
    if (!Log(writer, FillText(i), &value)) {
      lastCall = SecondsSince(start);
      return i;
    }
  }
  lastCall = 0;
  return kQueueRecords + 2;
}

}  // namespace

TEST(LogWriterFault, UnreachableFileKeepsRecordsAndStopsPromptly) {
  TempDir dir;
  tovitest::WriteFile(dir / "plain", "not a directory");
  struct Case {
    const char* what;
    std::string logPath;
    std::string prefix;
  };
  const std::vector<Case> cases = {
      {"missing parent directory", dir / "missing/logs", "p"},
      {"regular file in a parent's place", dir / "plain/logs", "p"},
      {"name component too long", dir / "long", std::string(300, 'x')},
  };

  const int live = CountingAsn::Live();
  std::vector<ToviLogWriter*> writers;
  for (const Case& c : cases) {
    writers.push_back(
        new ToviLogWriter(c.logPath, c.prefix, "header\n", false, false, 10, 1u << 20, 10));
  }
  for (int i = 0; i < 100; ++i) {
    const CountingAsn value("value " + std::to_string(i));
    for (std::size_t w = 0; w < writers.size(); ++w) {
      const AsnType* asn = i % 10 == 0 ? &value : nullptr;
      EXPECT_TRUE(Log(*writers[w], "record " + std::to_string(i), asn)) << cases[w].what;
      // Filtered records are held as well and must be freed at the stop.
      EXPECT_TRUE(writers[w]->AddLog(kSubModule, LEVEL_INFO, "held", &value, false, false));
    }
  }
  // Long enough for at least one retry after the first failed creation.
  std::this_thread::sleep_for(std::chrono::milliseconds(1200));
  for (std::size_t w = 0; w < writers.size(); ++w) {
    EXPECT_EQ(writers[w]->OutputQueueCount(), 100u) << cases[w].what;
    EXPECT_EQ(writers[w]->DiscardQueueCount(), 10u) << cases[w].what;
  }

  for (std::size_t w = 0; w < writers.size(); ++w) {
    const double seconds = TimedDelete(writers[w]);
    Report(std::string("destroy, ") + cases[w].what, seconds);
    EXPECT_LT(seconds, kHangBound) << cases[w].what;
  }
  EXPECT_EQ(CountingAsn::Live(), live);

  // Only the last directory level is ever made, and no file is left behind.
  EXPECT_FALSE(fs::exists(dir / "missing"));
  EXPECT_TRUE(fs::is_regular_file(dir / "plain"));
  EXPECT_EQ(ReadFile(dir / "plain"), "not a directory");
  EXPECT_TRUE(fs::is_directory(dir / "long"));
  EXPECT_TRUE(ListDir(dir / "long").empty());
  EXPECT_EQ(ListDir(dir.path()), (std::vector<std::string>{"long", "plain"}));
}

TEST(LogWriterFault, FullQueueOnWriterThatCannotWriteRefusesAndStops) {
  TempDir dir;
  const int live = CountingAsn::Live();
  auto* writer = new ToviLogWriter(dir / "missing/logs", "q", "", false, false, 0, 1u << 20, 10);

  double lastCall = 0;
  const Clock::time_point start = Clock::now();
  const std::size_t queued = FillUntilRefused(*writer, lastCall);
  Report("fill until refused", SecondsSince(start));
  Report("refused AddLog on a full queue", lastCall);
  EXPECT_EQ(queued, kQueueRecords);
  EXPECT_LT(lastCall, kHangBound);
  EXPECT_EQ(writer->OutputQueueCount(), queued);
  // The refused record was freed at once; the queued ones are still held.
  EXPECT_EQ(CountingAsn::Live(), live + static_cast<int>(queued));

  const double seconds = TimedDelete(writer);
  Report("destroy with a full queue, unwritable directory", seconds);
  EXPECT_LT(seconds, kHangBound);
  EXPECT_EQ(CountingAsn::Live(), live);
  EXPECT_TRUE(ListDir(dir.path()).empty());
}

// A writer that has its file but is held up (here by a console nobody reads)
// is still alive: producers on its full queue wait for it, however long, and
// lose nothing.
TEST(LogWriterFault, ProducersWaitForAStalledLiveWriter) {
  TempDir dir;
  const std::string logDir = dir / "logs/";
  int pipeFds[2];
  ASSERT_EQ(::pipe(pipeFds), 0);
  std::fflush(stdout);
  const int savedStdout = ::dup(1);
  ASSERT_GE(savedStdout, 0);
  ::dup2(pipeFds[1], 1);
  ::close(pipeFds[1]);
  // From here until stdout is restored nothing may print: the writer thread
  // holds stdout's lock while it is blocked on the full pipe.

  auto* writer = new ToviLogWriter(logDir, "stall", "", false, false, 0, 1u << 30, 10);
  const std::size_t total = kQueueRecords + 20000;
  std::atomic<std::size_t> produced{0};
  std::size_t refused = 0;
  double longest = 0;
  std::thread producer([&] {
    for (std::size_t i = 0; i < total; ++i) {
      const Clock::time_point start = Clock::now();
      if (!writer->AddLog(kSubModule, LEVEL_INFO, FillText(i).c_str(), nullptr, true, true)) {
        ++refused;
      }
      longest = std::max(longest, SecondsSince(start));
      produced.store(i + 1);
    }
  });
  const bool filled = WaitUntil([&] { return writer->OutputQueueCount() >= kQueueRecords; },
                                std::chrono::seconds(60));
  // Longer than a producer would wait for a writer that cannot write.
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  const std::size_t producedWhileStalled = produced.load();

  std::size_t printedLines = 0;
  std::thread reader([&] {
    char buf[65536];
    ssize_t n;
    while ((n = ::read(pipeFds[0], buf, sizeof buf)) > 0) {
      printedLines += static_cast<std::size_t>(std::count(buf, buf + n, '\n'));
    }
  });
  producer.join();
  const double destroy = TimedDelete(writer);
  std::fflush(stdout);
  ::dup2(savedStdout, 1);
  ::close(savedStdout);
  reader.join();
  ::close(pipeFds[0]);

  Report("longest AddLog wait on a stalled live writer", longest);
  Report("destroy after the stall cleared", destroy);
  ASSERT_TRUE(filled) << "the queue never filled behind the blocked console";
  EXPECT_LT(producedWhileStalled, total) << "the producer never had to wait";
  EXPECT_EQ(refused, 0u);
  EXPECT_EQ(printedLines, total);

  const std::vector<std::string> files = LogFiles(logDir);
  ASSERT_EQ(files.size(), 1u);
  const std::string text = ReadFile(logDir + files[0]);
  std::vector<std::string> want;
  want.reserve(total);
  for (std::size_t i = 0; i < total; ++i) want.push_back(FillText(i));
  ExpectSameSequence(Messages(text), want);
  EXPECT_EQ(text.find("record(s) dropped"), std::string::npos);
}

TEST(LogWriterFault, DirectoryAppearingLaterGetsQueuedRecordsAndDropCount) {
  TempDir dir;
  const std::string logDir = dir / "late/logs/";
  const int live = CountingAsn::Live();
  auto* writer = new ToviLogWriter(logDir, "late", "", false, false, 0, 1u << 30, 10);

  double lastCall = 0;
  const std::size_t queued = FillUntilRefused(*writer, lastCall);
  ASSERT_EQ(queued, kQueueRecords);
  // A second refusal, so that the count is seen to add up rather than to
  // say only that something was lost.
  const Clock::time_point start = Clock::now();
  EXPECT_FALSE(Log(*writer, "refused"));
  Report("second refused AddLog", SecondsSince(start));

  fs::create_directory(dir / "late");
  ASSERT_TRUE(WaitUntil([&] { return writer->OutputQueueCount() < queued; }));
  const int kAfter = 10;
  for (int i = 0; i < kAfter; ++i) EXPECT_TRUE(Log(*writer, "after-" + std::to_string(i)));
  Report("destroy after writing a full queue", TimedDelete(writer));
  EXPECT_EQ(CountingAsn::Live(), live);

  const std::vector<std::string> files = LogFiles(logDir);
  ASSERT_EQ(files.size(), 1u);
  const std::string text = ReadFile(logDir + files[0]);

  std::vector<std::string> want;
  want.reserve(queued + kAfter);
  for (std::size_t i = 0; i < queued; ++i) want.push_back(FillText(i));
  for (int i = 0; i < kAfter; ++i) want.push_back("after-" + std::to_string(i));
  ExpectSameSequence(Messages(text), want);

  const std::string dropLine = "\n2 record(s) dropped while the log file could not be written\n";
  EXPECT_EQ(CountOf(text, "record(s) dropped"), 1u);
  const std::size_t drop = text.find(dropLine);
  ASSERT_NE(drop, std::string::npos);
  EXPECT_LT(drop, text.find(kTag + "after-0\n"));
  EXPECT_EQ(CountOf(text, "about to clear m_OutputQueue(0)\n"), 1u);
  EXPECT_LT(text.find(kTag + "after-9\n"), text.find("thread handle output string exit\n"));
}

TEST(LogWriterFault, RemovedDirectoryIsRecreatedAtRollOver) {
  TempDir dir;
  const std::string logDir = dir / "logs/";
  auto* writer = new ToviLogWriter(logDir, "rm", "", false, false, 0, 2048, 1000);

  for (int i = 0; i < 5; ++i) EXPECT_TRUE(Log(*writer, "before-" + std::to_string(i)));
  ASSERT_TRUE(WaitUntil([&] {
    const std::vector<std::string> files = LogFiles(logDir);
    return files.size() == 1 &&
           ReadFile(logDir + files[0]).find(kTag + "before-4\n") != std::string::npos;
  }));
  fs::remove_all(logDir);

  const int kAfter = 200;
  auto afterText = [](int i) { return "after-" + std::to_string(i) + " " + std::string(60, 'r'); };
  for (int i = 0; i < kAfter; ++i) EXPECT_TRUE(Log(*writer, afterText(i)));
  delete writer;

  ASSERT_TRUE(fs::is_directory(logDir));
  // Names ascend with creation; a compressed file sorts by its plain name.
  std::vector<std::string> names = ListDir(logDir);
  auto plain = [](const std::string& n) {
    return tovitest::EndsWith(n, ".gz") ? n.substr(0, n.size() - 3) : n;
  };
  std::sort(names.begin(), names.end(),
            [&](const std::string& a, const std::string& b) { return plain(a) < plain(b); });
  ASSERT_GE(names.size(), 2u) << "the records after the removal should have rolled over again";
  std::vector<std::string> got;
  for (const std::string& name : names) {
    const std::string text =
        tovitest::EndsWith(name, ".gz") ? tovitest::ReadGz(logDir + name) : ReadFile(logDir + name);
    EXPECT_EQ(text.rfind("File create at time ", 0), 0u) << name;
    const std::vector<std::string> messages = Messages(text);
    got.insert(got.end(), messages.begin(), messages.end());
  }

  // What was written before the first roll-over went into the removed file;
  // from then on every record is in the new directory, in order, once.
  ASSERT_FALSE(got.empty());
  const std::string& first = got.front();
  ASSERT_EQ(first.rfind("after-", 0), 0u) << first;
  const int from = std::atoi(first.c_str() + std::string("after-").size());
  std::printf("[ measured ] first record in the recreated directory: after-%d of %d\n", from,
              kAfter);
  std::vector<std::string> want;
  for (int i = from; i < kAfter; ++i) want.push_back(afterText(i));
  ExpectSameSequence(got, want);
  EXPECT_LT(from, 50);
}

TEST(LogWriterFault, FullDiskLeavesTheFileWithinTheLimit) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // The child runs this test again from its start: it is told the parent's
  // directory, so that the parent can look at what it wrote.
  static const char kDirVar[] = "TOVI_FULL_DISK_TEST_DIR";
  std::unique_ptr<TempDir> own;
  std::string base;
  if (const char* inherited = std::getenv(kDirVar)) {
    base = inherited;
  } else {
    own = std::make_unique<TempDir>();
    base = own->path();
  }
  tovitest::ScopedEnv handOver(kDirVar, base.c_str());
  const std::string logDir = base + "logs/";
  constexpr rlim_t kLimit = 64 * 1024;

  const Clock::time_point start = Clock::now();
  EXPECT_EXIT(
      {
        // A hang becomes a failed exit instead of a stalled run.
        ::alarm(60);
        std::signal(SIGXFSZ, SIG_IGN);
        struct rlimit limit {};
        limit.rlim_cur = kLimit;
        limit.rlim_max = kLimit;
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) std::exit(2);
        auto* writer =
            new ToviLogWriter(logDir, "disk", "header\n", false, false, 10, 1u << 30, 10);
        const std::string pad(200, 'd');
        for (int i = 0; i < 2000; ++i) {
          if (!Log(*writer, std::to_string(i) + pad)) std::exit(3);
        }
        delete writer;
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
  Report("child writing 480 KB past a 64 KiB limit", SecondsSince(start));

  const std::vector<std::string> files = LogFiles(logDir);
  ASSERT_EQ(files.size(), 1u);
  const std::string text = ReadFile(logDir + files[0]);
  std::printf("[ measured ] file size under the limit: %zu bytes\n", text.size());
  EXPECT_LE(text.size(), kLimit);
  EXPECT_EQ(text.rfind("File create at time ", 0), 0u);
  EXPECT_NE(text.find(kTag + "0" + std::string(200, 'd') + "\n"), std::string::npos);
}

TEST(LogWriterFault, StopWritesEverythingQueuedBeforeIt) {
  TempDir dir;
  const std::string logDir = dir / "logs/";
  const int live = CountingAsn::Live();
  auto* writer = new ToviLogWriter(logDir, "stop", "", false, false, 10, 1u << 30, 10);

  const int kThreads = 4;
  const int kEach = 5000;
  std::vector<std::thread> producers;
  for (int t = 0; t < kThreads; ++t) {
    producers.emplace_back([writer, t] {
      const CountingAsn value("value");
      for (int i = 0; i < kEach; ++i) {
        const std::string text = "t" + std::to_string(t) + "-" + std::to_string(i);
        EXPECT_TRUE(Log(*writer, text, i % 100 == 0 ? &value : nullptr));
      }
    });
  }
  for (std::thread& p : producers) p.join();
  const std::size_t pending = writer->OutputQueueCount();
  const double seconds = TimedDelete(writer);
  std::printf("[ measured ] records pending at the stop: %zu of %d\n", pending, kThreads * kEach);
  Report("destroy with records pending", seconds);
  EXPECT_EQ(CountingAsn::Live(), live);

  const std::vector<std::string> files = LogFiles(logDir);
  ASSERT_EQ(files.size(), 1u);
  const std::string text = ReadFile(logDir + files[0]);
  std::vector<int> next(kThreads, 0);
  std::size_t count = 0;
  for (const std::string& m : Messages(text)) {
    ++count;
    ASSERT_GE(m.size(), 2u);
    const int t = m[1] - '0';
    ASSERT_TRUE(m[0] == 't' && t >= 0 && t < kThreads) << m;
    ASSERT_EQ(m, "t" + std::to_string(t) + "-" + std::to_string(next[t])) << "out of order";
    ++next[t];
  }
  EXPECT_EQ(count, static_cast<std::size_t>(kThreads * kEach));
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(next[t], kEach) << "thread " << t;

  const std::size_t exitLine = text.find("\nthread handle output string exit\n");
  ASSERT_NE(exitLine, std::string::npos);
  EXPECT_GT(exitLine, text.rfind(kTag));
  EXPECT_NE(text.find("about to clear m_OutputQueue(0)\n", exitLine), std::string::npos);
  EXPECT_EQ(text.find("record(s) dropped"), std::string::npos);
}
