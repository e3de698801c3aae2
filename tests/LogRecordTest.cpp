// Records on their way through a writer: message cuts and level prefixes,
// the ownership of ASN.1 clones, and the held-back records that an assertion
// brings out.
#include <gtest/gtest.h>

#include <ctime>
#include <memory>
#include <tuple>

#include <ace/ACE.h>

#include "WriterTestSupport.h"
#include "logwriter/TimeStamp.h"
#include "logwriter/ToviLogWriter.h"
#include "port/ToviPort.h"

using namespace tovitest;

TEST(LogRecord, MessageCutAndLevelPrefix) {
  TempDir dir;
  const std::string exact(2048, 'e');
  std::string huge(10000, 'h');
  huge[2048] = 'X';
  // Sub-module, level, text, and the record text expected in the file.
  const std::vector<std::tuple<std::string, int, std::string, std::string>> cases = {
      {"M", LEVEL_INFO, exact, "M INFO: " + exact},
      {"M", LEVEL_INFO, huge, "M INFO: " + huge.substr(0, 2048)},
      {"M", LEVEL_ASSERT, "a", "M ASSERT: a"},
      {"M", 31, "n", "M n"},
      {" M", LEVEL_INFO, "blank in the name", " M INFO: blank in the name"},
      {std::string(10000, 'n'), LEVEL_INFO, "long name", std::string(255, 'n') + " INFO: long name"},
  };
  std::vector<std::string> expected;
  {
    ToviLogWriter writer(dir.path(), "cut", "", false, false, 10, 1048576, 10);
    for (const auto& [sub, level, text, record] : cases) {
      ASSERT_TRUE(writer.AddLog(sub.c_str(), static_cast<ToviLogLevel>(level), text.c_str(),
                                nullptr, false, true));
      expected.push_back(record);
    }
  }
  EXPECT_EQ(RecordTexts(OnlyLog(dir.path())), expected);
}

TEST(LogRecord, AsnClonesBelongToTheRecord) {
  TempDir dir;
  const int liveBefore = CountingAsn::Live();
  const int clonesBefore = CountingAsn::Clones();
  StdoutCapture out;
  {
    ToviLogWriter writer(dir.path(), "asn", "", false, false, 10, 1048576, 10);
    for (int i = 0; i < 3; ++i) {
      auto value = std::make_unique<CountingAsn>("value " + std::to_string(i));
      ASSERT_TRUE(writer.AddLog("M", LEVEL_INFO, "msg", value.get(), i == 2, true));
      // Destroying the caller's object at once must not change the log.
    }
    // Clones of records that are still held back when the writer stops are
    // freed with them.
    CountingAsn held("held");
    for (int i = 0; i < 4; ++i) writer.AddLog("M", LEVEL_WARN, "filtered", &held, false, false);
    EXPECT_FALSE(writer.AddLog("M", LEVEL_INFO, nullptr, &held, true, true));
  }
  EXPECT_EQ(CountingAsn::Clones() - clonesBefore, 7) << "no clone for a refused call";
  EXPECT_EQ(CountingAsn::Live(), liveBefore) << "every clone freed";
  const std::string printed = out.Restore();

  const std::string log = OnlyLog(dir.path());
  for (const char* i : {"0", "1", "2"}) {
    EXPECT_NE(log.find(std::string("M INFO: msg\nASN Trace:\nvalue ") + i + "\n"), log.npos) << log;
  }
  EXPECT_NE(log.find("about to clear m_DiscardQueue(4)"), std::string::npos);
  EXPECT_EQ(log.find("held"), std::string::npos);
  EXPECT_NE(printed.find(" M INFO: msg\nASN Trace:\nvalue 2\n"), std::string::npos) << printed;
}

TEST(LogRecord, AssertionBringsOutTheHeldBackRecords) {
  TempDir dir;
  constexpr unsigned kHeld = 5;
  uint32_t producer = 0;
  StdoutCapture out;
  {
    ToviLogWriter writer(dir.path(), "held", "", false, false, kHeld, 1048576, 10);
    ASSERT_TRUE(writer.AddLog("M", LEVEL_INFO, "before", nullptr, false, true));
    // N+5 filtered records from another thread: the last N are kept.
    std::thread([&] {
      producer = toviport::CurrentThreadId();
      for (unsigned i = 0; i < kHeld + 5; ++i) {
        EXPECT_TRUE(writer.AddLog("M", LEVEL_WARN, ("held " + std::to_string(i)).c_str(), nullptr,
                                  false, false));
      }
    }).join();
    EXPECT_EQ(writer.DiscardQueueCount(), kHeld);
    ASSERT_TRUE(writer.AddLog("M", LEVEL_ASSERT, "boom", nullptr, false, true));
    ASSERT_TRUE(writer.AddLog("M", LEVEL_ASSERT, "again", nullptr, false, true));
    // Once the assertions are written, a new filtered record waits again.
    ASSERT_TRUE(WaitUntil([&] { return OnlyLog(dir.path()).find("again") != std::string::npos; }));
    ASSERT_TRUE(writer.AddLog("M", LEVEL_WARN, "left over", nullptr, false, false));
  }
  const std::string printed = out.Restore();

  const std::string log = OnlyLog(dir.path());
  std::vector<std::string> held;
  for (int i = 5; i < 10; ++i) held.push_back("M WARN: held " + std::to_string(i));
  std::vector<std::string> expected = held;
  expected.insert(expected.begin(), "M INFO: before");
  expected.insert(expected.end(), {"M ASSERT: boom", "M ASSERT: again"});
  EXPECT_EQ(RecordTexts(log), expected);
  // Each held record keeps the time and thread of its own call.
  EXPECT_NE(log.find(".T" + Hex(producer) + " M WARN: held 5\n"), std::string::npos);
  EXPECT_NE(log.find("about to clear m_DiscardQueue(1)"), std::string::npos);
  // Held records are printed too when they come out; the assertion itself
  // asked for the file only.
  EXPECT_EQ(RecordTexts(printed), held);

  // A writer that keeps nothing accepts filtered records and drops them.
  TempDir none;
  {
    ToviLogWriter writer(none.path(), "none", "", false, false, 0, 1048576, 10);
    EXPECT_TRUE(writer.AddLog("M", LEVEL_WARN, "gone", nullptr, false, false));
    EXPECT_EQ(writer.DiscardQueueCount(), 0u);
    EXPECT_TRUE(writer.AddLog("M", LEVEL_ASSERT, "boom", nullptr, false, true));
  }
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
