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
  mgr->Trace("net", LEVEL_INFO, "old record", nullptr, false, true);
  ASSERT_TRUE(WaitUntil([&] { return Occurrences(OnlyLog(dir.path()), "old record") == 1; }));
  const std::string firstFile = ListDir(dir.path()).at(0);

  TovilogChild follower({dir.path(), "-f", "--json", "--quiet-events"});
  // It starts at the end of the live file; a record written while it was
  // still getting there would not be shown, so write until one is.
  for (int i = 0; i < 100; ++i) {
    mgr->Trace("net", LEVEL_INFO, ("probe " + std::to_string(i)).c_str(), nullptr, false, true);
    if (WaitUntil([&] { return follower.Out().find("probe") != std::string::npos; },
                  std::chrono::milliseconds(300))) {
      break;
    }
  }
  // 1.5 MB: the writer rolls over and compresses the file being followed.
  const std::string payload(1000, 'x');
  for (int i = 0; i < 1500; ++i) {
    mgr->Trace("net", LEVEL_WARN, ("new " + std::to_string(i) + " " + payload).c_str(), nullptr,
               false, true);
  }
  const bool sawAll = WaitUntil(
      [&] { return follower.Out().find("\"new 1499 ") != std::string::npos; },
      std::chrono::seconds(60));
  EXPECT_TRUE(EndsWith(ListDir(dir.path()).at(0), ".gz"));
  EXPECT_EQ(ListDir(dir.path()).at(0), firstFile + ".gz");
  follower.Interrupt();
  EXPECT_EQ(follower.Wait(std::chrono::seconds(20)), 0);
  ToviDebugMgr::Destroy();
  ASSERT_TRUE(sawAll);

  int next = 0;
  for (const nlohmann::json& o : JsonLines(follower.Out())) {
    const std::string text = o["text"];
    EXPECT_EQ(text.find("old"), std::string::npos);
    if (text.rfind("new ", 0) != 0) continue;
    EXPECT_EQ(text, "new " + std::to_string(next) + " " + payload);
    EXPECT_EQ(o["level"], "WARN");
    ++next;
  }
  EXPECT_EQ(next, 1500);
  EXPECT_EQ(follower.Err(), "");
}
