// Records on their way through a writer: the held-back records that an
// assertion brings out, and the time stamp of every record.

#include <ace/ACE.h>

#include "WriterTestSupport.h"
#include "logwriter/TimeStamp.h"

using namespace tovitest;

TEST(LogRecord, AssertionBringsOutTheHeldBackRecords) {
  TempDir dir, none;
  constexpr unsigned kHeld = 5;
  uint32_t producer = 0;
  StdoutCapture out;
  auto writer = NewWriter(dir.path(), "held", "", kHeld);
  ASSERT_TRUE(writer->AddLog("M", LEVEL_INFO, "before", nullptr, false, true));
  // N+5 filtered records from another thread: the last N are kept.
  std::thread([&] {
    producer = toviport::CurrentThreadId();
    for (unsigned i = 0; i < kHeld + 5; ++i) {
      const std::string text = "held " + std::to_string(i);
      EXPECT_TRUE(writer->AddLog("M", LEVEL_WARN, text.c_str(), nullptr, false, false));
    }
  }).join();
  EXPECT_EQ(writer->DiscardQueueCount(), kHeld);
  ASSERT_TRUE(writer->AddLog("M", LEVEL_ASSERT, "boom", nullptr, false, true));
  ASSERT_TRUE(writer->AddLog("M", LEVEL_ASSERT, "again", nullptr, false, true));
  // Once the assertions are written, a new filtered record waits again.
  ASSERT_TRUE(WaitUntil([&] { return OnlyLog(dir.path()).find("again") != std::string::npos; }));
  ASSERT_TRUE(writer->AddLog("M", LEVEL_WARN, "left over", nullptr, false, false));
  writer.reset();
  // A writer that keeps nothing accepts filtered records and drops them.
  writer = NewWriter(none.path(), "none", "", 0);
  EXPECT_TRUE(writer->AddLog("M", LEVEL_WARN, "gone", nullptr, false, false));
  EXPECT_EQ(writer->DiscardQueueCount(), 0u);
  EXPECT_TRUE(writer->AddLog("M", LEVEL_ASSERT, "boom", nullptr, false, true));
  writer.reset();
  const std::string printed = out.Restore();

  const std::string log = OnlyLog(dir.path());
  std::vector<std::string> held, expected{"M INFO: before"};
  for (int i = 5; i < 10; ++i) held.push_back("M WARN: held " + std::to_string(i));
  expected.insert(expected.end(), held.begin(), held.end());
  expected.insert(expected.end(), {"M ASSERT: boom", "M ASSERT: again"});
  EXPECT_EQ(RecordTexts(log), expected);
  // Each held record keeps the time and thread of its own call.
  EXPECT_NE(log.find(".T" + Hex(producer) + " M WARN: held 5\n"), std::string::npos);
  EXPECT_NE(log.find("about to clear m_DiscardQueue(1)"), std::string::npos);
  // Held records are printed too when they come out; the assertion itself
  // asked for the file only.
  EXPECT_EQ(RecordTexts(printed), held);
  EXPECT_EQ(RecordTexts(OnlyLog(none.path())), std::vector<std::string>{"M ASSERT: boom"});
}

// The time stamp comes from a per-thread cache of the current second; its
// bytes must be ACE's to the last digit, across second, day and zone-offset
// changes (a spring-forward night in a zone east of UTC), and when the clock
// steps back.
TEST(LogRecord, TimeStampIsAcesToTheByte) {
  ScopedEnv zone("TZ", "CET-1CEST,M3.5.0,M10.5.0/3");
  ::tzset();
  // 2026-03-28 22:59:00 UTC: local midnight, then the jump from 02:00 to 03:00.
  const time_t start = 1774738740;
  for (long step = 0; step < 40000; ++step) {
    // Strides that land on every microsecond pattern and cross each second
    // several times; every seventh call goes back in time.
    const long offset = step % 7 == 6 ? -step * 137 : step * 271351;
    const ACE_Time_Value when(start + offset / 1000000, offset % 1000000 < 0 ? 0 : offset % 1000000);
    char ours[timestamp::kLength + 1];
    char ace[40];
    timestamp::Format(when, ours);
    ACE::timestamp(when, ace, sizeof ace, false);
    ASSERT_STREQ(ours, ace) << "at " << when.sec() << "." << when.usec();
  }
}
