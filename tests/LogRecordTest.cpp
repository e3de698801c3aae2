// Records on their way through a writer: message cuts and level prefixes,
// the ownership of ASN.1 clones, and the held-back records that an assertion
// brings out.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "WriterTestSupport.h"
#include "logwriter/ToviLogWriter.h"
#include "port/ToviPort.h"

using namespace tovitest;

namespace {

// The single plain log file of a stopped writer.
std::string OnlyLogFile(const std::string& dir) {
  std::vector<std::string> logs;
  for (const auto& name : ListDir(dir)) {
    if (EndsWith(name, ".log")) logs.push_back(name);
  }
  return logs.size() == 1 ? ReadFile(dir + logs[0]) : "<" + std::to_string(logs.size()) + " files>";
}

// The record texts of a log (what follows "<time>.T<tid> "), in order.
std::vector<std::string> RecordTexts(const std::string& log) {
  std::vector<std::string> texts;
  std::size_t start = 0;
  while (start < log.size()) {
    std::size_t end = log.find('\n', start);
    if (end == std::string::npos) end = log.size();
    const std::string line = log.substr(start, end - start);
    const std::size_t t = line.find(".T");
    if (t == 15 && line.size() > t + 2) texts.push_back(line.substr(line.find(' ', t) + 1));
    start = end + 1;
  }
  return texts;
}

std::string Hex(uint32_t v) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%x", v);
  return buf;
}

}  // namespace

TEST(LogRecord, MessageCutAndLevelPrefix) {
  TempDir dir;
  const std::string exact(2048, 'e');
  const std::string over = std::string(2048, 'o') + "X";
  std::string huge(10000, 'h');
  huge[2048] = 'X';
  {
    ToviLogWriter writer(dir.path(), "cut", "", false, false, 10, 1048576, 10);
    for (const std::string& text : {exact, over, huge}) {
      ASSERT_TRUE(writer.AddLog("M", LEVEL_INFO, text.c_str(), nullptr, false, true));
    }
    ASSERT_TRUE(writer.AddLog("M", LEVEL_ASSERT, "a", nullptr, false, true));
    ASSERT_TRUE(writer.AddLog("M", LEVEL_ERROR, "e", nullptr, false, true));
    ASSERT_TRUE(writer.AddLog("M", LEVEL_WARN, "w", nullptr, false, true));
    ASSERT_TRUE(writer.AddLog("M", static_cast<ToviLogLevel>(31), "n", nullptr, false, true));
    ASSERT_TRUE(writer.AddLog(" M", LEVEL_INFO, "blank in the name", nullptr, false, true));
  }
  const std::vector<std::string> texts = RecordTexts(OnlyLogFile(dir.path()));
  const std::vector<std::string> expected = {
      "M INFO: " + exact,
      "M INFO: " + over.substr(0, 2048),
      "M INFO: " + huge.substr(0, 2048),
      "M ASSERT: a",
      "M ERROR: e",
      "M WARN: w",
      "M n",
      " M INFO: blank in the name",
  };
  EXPECT_EQ(texts, expected);
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
  const std::string printed = out.Text();
  out.Restore();

  const std::string log = OnlyLogFile(dir.path());
  for (int i = 0; i < 3; ++i) {
    EXPECT_NE(log.find("M INFO: msg\nASN Trace:\nvalue " + std::to_string(i) + "\n"),
              std::string::npos)
        << log;
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
    ASSERT_TRUE(WaitUntil([&] { return OnlyLogFile(dir.path()).find("ASSERT: again") != std::string::npos; }));
    ASSERT_TRUE(writer.AddLog("M", LEVEL_WARN, "left over", nullptr, false, false));
  }
  const std::string printed = out.Text();
  out.Restore();

  const std::string log = OnlyLogFile(dir.path());
  const std::vector<std::string> expected = {"M INFO: before", "M WARN: held 5", "M WARN: held 6",
                                             "M WARN: held 7", "M WARN: held 8", "M WARN: held 9",
                                             "M ASSERT: boom", "M ASSERT: again"};
  EXPECT_EQ(RecordTexts(log), expected);
  // Each held record keeps the time and thread of its own call.
  EXPECT_NE(log.find(".T" + Hex(producer) + " M WARN: held 5\n"), std::string::npos);
  EXPECT_NE(log.find("about to clear m_DiscardQueue(1)"), std::string::npos);
  // Held records are printed too when they come out; the assertion itself
  // asked for the file only.
  EXPECT_EQ(RecordTexts(printed),
            (std::vector<std::string>{"M WARN: held 5", "M WARN: held 6", "M WARN: held 7",
                                      "M WARN: held 8", "M WARN: held 9"}));

  // A writer that keeps nothing accepts filtered records and drops them.
  TempDir none;
  {
    ToviLogWriter writer(none.path(), "none", "", false, false, 0, 1048576, 10);
    EXPECT_TRUE(writer.AddLog("M", LEVEL_WARN, "gone", nullptr, false, false));
    EXPECT_EQ(writer.DiscardQueueCount(), 0u);
    EXPECT_TRUE(writer.AddLog("M", LEVEL_ASSERT, "boom", nullptr, false, true));
  }
  EXPECT_EQ(RecordTexts(OnlyLogFile(none.path())), std::vector<std::string>{"M ASSERT: boom"});
}
