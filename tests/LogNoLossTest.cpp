// Many threads, one writer, files rolling over and being compressed as they
// go: every record must arrive exactly once, in the order each thread made
// them, no file may ever replace another, and each rolls over right after
// the record that took it past its limit. Across threads the file keeps
// the order in which calls reserved their room: a call that returned before
// another began comes first.
#include <numeric>

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
  // Two threads that take turns, each call handing the turn on when it
  // returns: their records must alternate in the file.
  constexpr int kTurns = 3000;
  std::atomic<int> turn{0};
  for (int side = 0; side < 2; ++side) {
    threads.emplace_back([&, side] {
      for (int i = side; i < 2 * kTurns; i += 2) {
        while (turn.load(std::memory_order_acquire) != i) std::this_thread::yield();
        writer->AddLog("S", LEVEL_INFO, ("turn " + std::to_string(i)).c_str(), nullptr, false, true);
        turn.store(i + 1, std::memory_order_release);
      }
    });
  }
  for (auto& th : threads) th.join();
  writer.reset();

  // Files in name order are files in creation order; a name is never used
  // twice, and only the last file stays plain.
  const std::vector<std::string> names = ListDir(dir.path());
  std::vector<std::vector<int>> seen(kThreads);
  std::vector<int> turns;
  std::set<std::string> bases;
  for (const std::string& name : names) {
    EXPECT_TRUE(bases.insert(name.substr(0, name.find(".log") + 4)).second) << name;
    EXPECT_EQ(EndsWith(name, ".log.gz"), name != names.back()) << name;
    // A file ends with the record that took it past its limit, then its
    // close line; only the first one has the first-file lines.
    const std::string text = ReadGz(dir / name);
    const std::size_t close = text.rfind("\nFile close at ") + 1;
    EXPECT_TRUE(name == names.back() || (close > 1048576 && close < 1048576 + 64 &&
                                         text.find('\n', close) == text.size() - 1))
        << name << " " << close;
    EXPECT_EQ(text.find("This is the first log file") != std::string::npos, name == names.front());
    for (const std::string& record : RecordTexts(text)) {
      int t = -1, i = -1;
      if (std::sscanf(record.c_str(), "S INFO: t%d n%d", &t, &i) == 2 && t >= 0 && t < kThreads)
        seen[t].push_back(i);
      if (std::sscanf(record.c_str(), "S INFO: turn %d", &i) == 1) turns.push_back(i);
    }
  }
  EXPECT_GT(names.size(), 5u) << "the run should have rolled over several times";
  // In order per thread and complete: none lost, none doubled.
  std::vector<int> all(kPerThread);
  std::iota(all.begin(), all.end(), 0);
  for (int t = 0; t < kThreads; ++t) EXPECT_TRUE(seen[t] == all) << "thread " << t;
  std::vector<int> alternating(2 * kTurns);
  std::iota(alternating.begin(), alternating.end(), 0);
  EXPECT_TRUE(turns == alternating);
}
