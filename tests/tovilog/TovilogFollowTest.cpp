// TovilogFollowTest.cpp - tovilog -f on a live writer: it shows what is
// written after it started, moves on at a roll-over while the old file is
// compressed and removed, and ends cleanly on SIGINT.
#include "TovilogRun.h"

using namespace tovitest;

TEST(TovilogFollow, NewRecordsAcrossARollOverUntilInterrupted) {
  ScopedRoot root("nEachFileMaxSize=1\nnEachProcessMaxZipNum=50\n");
  TempDir dir;
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  ASSERT_TRUE(mgr->Init("live", "", dir.path(), "", false, false));
  const auto trace = [&](int level, const std::string& text) {
    mgr->Trace("net", static_cast<ToviLogLevel>(level), text.c_str(), nullptr, false, true);
  };
  trace(LEVEL_INFO, "old record");
  ASSERT_TRUE(WaitUntil([&] { return Occurrences(OnlyLog(dir.path()), "old record") == 1; }));
  const std::string firstFile = ListDir(dir.path()).at(0);
  TovilogChild follower({dir.path(), "-f", "--json", "--quiet-events"});
  // It starts at the end of the live file; a record written while it was
  // still getting there would not be shown, so write until one is.
  for (int i = 0; i < 100; ++i) {
    trace(LEVEL_INFO, "probe " + std::to_string(i));
    if (WaitUntil([&] { return follower.Out().find("probe") != std::string::npos; },
                  std::chrono::milliseconds(300)))
      break;
  }
  // 1.5 MB: the writer rolls over and compresses the file being followed.
  std::vector<std::string> want;
  for (int i = 0; i < 1500; ++i) trace(LEVEL_WARN, want.emplace_back("new " + std::to_string(i) + " " + std::string(1000, 'x')));
  EXPECT_TRUE(WaitUntil([&] { return follower.Out().find("\"new 1499 ") != std::string::npos; },
                        std::chrono::seconds(60)));
  EXPECT_EQ(ListDir(dir.path()).at(0), firstFile + ".gz");
  follower.Interrupt();
  EXPECT_EQ(follower.Wait(std::chrono::seconds(20)), 0);
  ToviDebugMgr::Destroy();
  std::vector<std::string> got;
  for (const nlohmann::json& o : JsonLines(follower.Out()))
    if (o["level"] == "WARN" || o["text"] == "old record") got.push_back(o["text"]);
  EXPECT_EQ(got, want);
  EXPECT_EQ(follower.Err(), "");
}
