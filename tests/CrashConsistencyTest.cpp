// CrashConsistencyTest.cpp - a process killed while it traces at full speed,
// at varied moments, some of them while a rolled-over file is being
// compressed. After the next start, every file must read whole (archives
// through zlib), no unfinished archive may remain, and each thread's records
// must be a gap-free prefix of what it was told had been accepted.
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <numeric>

#include "WriterTestSupport.h"
#include "logwriter/RecordBlock.h"

using namespace tovitest;

constexpr int kThreads = 4, kRecordsPerThread = 100000;

// The child: four threads trace until killed; each publishes how many of
// its records were accepted.
[[noreturn]] static void TraceUntilKilled(const std::string& dir, std::atomic<uint64_t>* accepted) {
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  if (!mgr->Init("crash", "", dir, "crash test\n", false, false)) ::_exit(3);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([mgr, t, accepted] {
      char text[128];
      for (int seq = 0; seq < kRecordsPerThread; ++seq) {
        std::snprintf(text, sizeof text, "t%d %d %s", t, seq, std::string(60, 'p').c_str());
        if (!mgr->Trace("c", LEVEL_INFO, text, nullptr, false, true)) return;
        accepted[t].store(static_cast<uint64_t>(seq) + 1, std::memory_order_release);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  ToviDebugMgr::Destroy();
  ::_exit(0);
}

TEST(CrashConsistency, KilledMidRunLeavesWholeFilesAndGapFreePrefixes) {
  ScopedRoot root("nEachFileMaxSize=1\nnEachProcessMaxZipNum=50\n");
  auto* accepted = static_cast<std::atomic<uint64_t>*>(::mmap(nullptr, 4096,
      PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(accepted, MAP_FAILED);
  int duringCompression = 0;
  for (int run = 0; run < 10; ++run) {
    SCOPED_TRACE("run " + std::to_string(run));
    TempDir dir;
    for (int t = 0; t < kThreads; ++t) accepted[t].store(0);
    std::fflush(stdout);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) TraceUntilKilled(dir.path(), accepted);
    std::this_thread::sleep_for(std::chrono::milliseconds(30 + 45 * run));
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    for (const std::string& name : ListDir(dir.path())) duringCompression += EndsWith(name, ".tmp");

    // The next start finishes what the kill interrupted.
    NewWriter(dir.path(), "crash", "", 10, 1u << 20, 50).reset();

    std::vector<std::vector<int>> seen(kThreads);
    for (const std::string& name : ListDir(dir.path())) {
      bool whole = true;
      const std::string text = ReadGz(dir / name, &whole);
      EXPECT_TRUE(whole && !EndsWith(name, ".tmp")) << name;
      for (const std::string& record : RecordTexts(text)) {
        int t = -1, seq = -1;
        if (std::sscanf(record.c_str(), "c INFO: t%d %d", &t, &seq) == 2 && t >= 0 && t < kThreads)
          seen[t].push_back(seq);
      }
    }
    uint64_t lost = 0;
    for (int t = 0; t < kThreads; ++t) {
      std::vector<int> prefix(seen[t].size());
      std::iota(prefix.begin(), prefix.end(), 0);
      ASSERT_EQ(seen[t], prefix) << "thread " << t << ": a gap or a repeat";
      EXPECT_LE(prefix.size(), accepted[t].load() + 1) << "thread " << t;
      lost += accepted[t].load() > prefix.size() ? accepted[t].load() - prefix.size() : 0;
    }
    // What the kill takes is at most what one writer's queue holds: every
    // small record costs at least 400 bytes of its water mark.
    EXPECT_LE(lost, recordblock::kQueueWaterMark / 400);
  }
  std::printf("%d run(s) killed during a compression\n", duringCompression);
  ::munmap(accepted, 4096);
}
