// Records on their way through a writer: the held-back records that an
// assertion brings out, and the time stamp of every record.

#include <ace/ACE.h>

#include "WriterTestSupport.h"
#include "logwriter/TimeStamp.h"

using namespace tovitest;

// The last N filtered records of any thread wait, each with its own time
// and thread, until an assertion brings them out on the file and the
// console; a writer that keeps none drops them.
TEST(LogRecord, AssertionBringsOutTheHeldBackRecords) {
  TempDir dir, none;
  StdoutCapture out;
  auto writer = NewWriter(dir.path(), "held", "", 5);
  auto keepsNone = NewWriter(none.path(), "none", "", 0);
  uint32_t producer = 0;
  std::vector<std::string> held;
  std::thread([&] {
    producer = toviport::CurrentThreadId();
    for (int i = 0; i < 10; ++i) {
      const std::string text = "held " + std::to_string(i);
      EXPECT_TRUE(writer->AddLog("M", LEVEL_WARN, text.c_str(), nullptr, false, false) &&
                  keepsNone->AddLog("M", LEVEL_WARN, text.c_str(), nullptr, false, false));
      if (i >= 5) held.push_back("M WARN: " + text);
    }
  }).join();
  EXPECT_EQ(writer->DiscardQueueCount() + keepsNone->DiscardQueueCount(), 5u);
  for (auto* w : {writer.get(), keepsNone.get()})
    EXPECT_TRUE(w->AddLog("M", LEVEL_ASSERT, "boom", nullptr, false, true));
  writer.reset(), keepsNone.reset();
  // The assertion itself asked for the file only.
  EXPECT_EQ(RecordTexts(out.Restore()), held);
  const std::string log = OnlyLog(dir.path());
  held.push_back("M ASSERT: boom");
  EXPECT_EQ(RecordTexts(log), held);
  EXPECT_NE(log.find(".T" + Hex(producer) + " M WARN: held 5\n"), std::string::npos);
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
