// Many threads, one writer, files rolling over and being compressed as they
// go: every record must arrive exactly once, in the order each thread made
// them, and no file may ever replace another.

#include "WriterTestSupport.h"

using namespace tovitest;

TEST(LogNoLoss, EveryRecordOnceInOrderAcrossRolledFiles) {
  constexpr int kThreads = 8, kPerThread = 20000;
  TempDir dir;
  auto writer = NewWriter(dir.path(), "noloss_", "", 100, 1048576, 1000);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      char text[64];
      for (int i = 0; i < kPerThread; ++i) {
        std::snprintf(text, sizeof text, "t%d n%d", t, i);
        writer->AddLog("S", LEVEL_INFO, text, nullptr, false, true);
        // Filtered records on the side must not disturb the ordered ones.
        if (i % 1000 == 0) writer->AddLog("S", LEVEL_WARN, "side", nullptr, false, false);
      }
    });
  }
  for (auto& th : threads) th.join();
  writer.reset();

  // Files in name order are files in creation order.
  const std::vector<std::string> names = ListDir(dir.path());
  std::set<std::string> bases;
  int plain = 0, outOfOrder = 0;
  std::vector<int> next(kThreads, 0);
  for (const std::string& name : names) {
    const bool gz = EndsWith(name, ".log.gz");
    ASSERT_TRUE(gz || EndsWith(name, ".log")) << name;
    plain += gz ? 0 : 1;
    EXPECT_TRUE(bases.insert(gz ? name.substr(0, name.size() - 3) : name).second)
        << "two files of one name: " << name;
    const std::string text = gz ? ReadGz(dir.path() + name) : ReadFile(dir.path() + name);
    std::size_t pos = 0;
    while ((pos = text.find(" S INFO: t", pos)) != std::string::npos) {
      int t = -1, i = -1;
      std::sscanf(text.c_str() + pos, " S INFO: t%d n%d", &t, &i);
      ASSERT_TRUE(t >= 0 && t < kThreads) << name;
      if (i != next[t]) ++outOfOrder;
      next[t] = i + 1;
      ++pos;
    }
  }
  EXPECT_EQ(plain, 1) << "only the last file stays plain";
  EXPECT_GT(names.size(), 5u) << "the run should have rolled over several times";
  // In order per thread and ending at the last: none lost, none doubled.
  EXPECT_EQ(outOfOrder, 0);
  EXPECT_EQ(next, std::vector<int>(kThreads, kPerThread));
}
