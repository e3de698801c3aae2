// LogFormatTest.cpp - every kind of line a writer puts into its files, read
// back by tovilog's line parser: a record of each level, an ASN.1 value, the
// header, and the writer's own lines, among them the three counts of lost
// records, each brought about for real. A line the writer writes that the
// reader takes for something else (or for nothing) fails here.
#include <gtest/gtest.h>

#include "LocalTime.h"
#include "LogLine.h"
#include "WriterTestSupport.h"
#include "logwriter/LogFormat.h"
#include "logwriter/RecordJournal.h"

using namespace tovitest;

namespace {
// More small records than a writer's ring holds.
constexpr std::size_t kPastFullRing = RecordJournal::kRingBytes / sizeof(RecordJournal::Entry) + 1;

bool Log(ToviLogWriter& writer, const std::string& text, int level = LEVEL_INFO,
         const AsnType* asn = nullptr, bool print = false) {
  return writer.AddLog("fmt", static_cast<ToviLogLevel>(level), text.c_str(), asn, print, true);
}
}  // namespace

TEST(LogFormat, EveryLineTheWriterWritesReadsBackAsWhatItIs) {
  TempDir dir;
  WriteFile(dir / "plain", "not a directory");
  const std::string logDir = dir / "plain/logs/";
  auto writer = NewWriter(logDir, "fmt", "hdr\n");
  // No directory yet: a full queue refuses one record, counted once the
  // directory can be made.
  std::this_thread::sleep_for(std::chrono::milliseconds(1200));
  std::size_t queued = 0;
  while (queued < kPastFullRing && Log(*writer, "queued")) ++queued;
  EXPECT_LT(queued, kPastFullRing);
  std::filesystem::remove(dir / "plain");
  // A writer without a file is not waited for: the records go in once it
  // has one again.
  ASSERT_TRUE(WaitUntil([&] { return writer->OutputQueueCount() < queued; }));
  const CountingAsn asn("Value ::= 1");
  for (int level : {0, 1, 2, 3, 9}) Log(*writer, "level " + std::to_string(level), level, level == 1 ? &asn : nullptr);
  ASSERT_TRUE(WaitUntil([&] { return OnlyLog(logDir).find("level 9\n") != std::string::npos; }));
  std::string text = OnlyLog(logDir);

  // A removed directory, noticed and counted in the next file.
  std::filesystem::remove_all(dir / "plain");
  for (int i = 0; i < 300; ++i) Log(*writer, "after"), std::this_thread::sleep_for(std::chrono::milliseconds(5));
  // A console that nobody reads: what it did not take is counted at the stop.
  int pipeFds[2];
  ASSERT_EQ(::pipe(pipeFds), 0);
  std::fflush(stdout);
  const int savedStdout = ::dup(1);
  ::dup2(pipeFds[1], 1);
  ::close(pipeFds[1]);
  for (int i = 0; i < 5000; ++i) Log(*writer, "printed " + std::string(40, 'p'), LEVEL_INFO, nullptr, true);
  writer.reset();
  ::dup2(savedStdout, 1);
  ::close(savedStdout);
  ::close(pipeFds[0]);
  text += OnlyLog(logDir);

  std::multiset<std::string> events;
  std::map<std::string, int> levels;
  std::vector<std::string> others;
  for (const std::string& line : SplitLines(text)) {
    tovilog::RecordHead head;
    tovilog::EventKind kind;
    int64_t wall = 0;
    if (tovilog::ParseRecordHead(line, head)) {
      levels[line.substr(head.messageBegin)] = head.level;
    } else if (tovilog::ParseFileLine(line, kind, wall)) {
      events.insert(tovilog::EventName(kind));
      // Every line that carries a date and time gives it back.
      EXPECT_TRUE(kind != tovilog::EventKind::kCreate || wall != tovilog::kNoTime) << line;
    } else {
      others.push_back(line);
    }
  }
  EXPECT_EQ(events, (std::multiset<std::string>{"create", "create", "first-file", "thread-handle",
                                                "date", "dropped", "dropped", "dropped",
                                                "thread-exit", "stop", "stop", "stop", "close"}));
  EXPECT_EQ(levels, (std::map<std::string, int>{{"level 0", 0}, {"level 1", 1}, {"level 2", 2},
                                                {"level 3", 3}, {"level 9", 4}, {"queued", 3},
                                                {"after", 3}, {"printed " + std::string(40, 'p'), 3}}));
  // The header follows each creation line; the value's lines follow its record.
  EXPECT_EQ(others, (std::vector<std::string>{"hdr", "ASN Trace:", "Value ::= 1", "hdr"}));
  for (const std::string_view line :
       {logformat::kNoMessageBlock, logformat::kNoOutputData, logformat::kHeldBackClearFailed,
        logformat::kOutputClearFailed}) {
    tovilog::EventKind kind;
    int64_t wall = 0;
    EXPECT_TRUE(tovilog::ParseFileLine(line, kind, wall) && kind == tovilog::EventKind::kWriterMessage) << line;
  }
}
