// CrashConsistencyTest.cpp - a process that dies while it traces at full
// speed: killed at varied moments, some of them while a rolled-over file is
// being compressed, or dying of a fault of its own. After the next start,
// every file must read whole (archives through zlib), no unfinished archive
// may remain, and each thread's records must be a gap-free prefix of what it
// was told had been accepted; a fault must leave a crash report and every
// accepted record, and the process must still die of its signal.
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <numeric>

#include "WriterTestSupport.h"
#include "logwriter/RecordBlock.h"

using namespace tovitest;

constexpr int kThreads = 4, kRecordsPerThread = 100000;

// A stack overflow: SIGSEGV on a stack with no room for the handler.
constexpr int kOverflow = 1000;
static volatile bool g_deeper = true;
__attribute__((noinline)) int Recurse(int depth) {
  volatile char frame[1024];
  frame[0] = static_cast<char>(depth);
  return (g_deeper ? Recurse(depth + 1) : 0) + frame[0];
}

// The fault, in a function of its own that the report must name.
__attribute__((noinline)) void CrashHere(int signal) {
  if (signal == kOverflow) Recurse(0);
  static volatile int zero = 0, seven = 7;
  if (signal == SIGSEGV) *static_cast<volatile int*>(::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) = 1;
  if (signal == SIGFPE) zero = seven / zero;
  if (signal == SIGILL) __builtin_trap();
  if (signal == SIGABRT) std::abort();
  if (signal == SIGBUS) {
    // A store into a mapped page that its file no longer reaches.
    char path[] = "/tmp/tovi-busXXXXXX";
    const int fd = ::mkstemp(path);
    if (::ftruncate(fd, 4096) != 0) return;
    auto* page = static_cast<volatile char*>(::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    ::unlink(path);
    if (::ftruncate(fd, 0) == 0) page[0] = 1;
  }
}

// The child: four threads trace until killed (or until faulting, from
// `faulting` more threads, signal names the fault); each publishes how many
// of its records were accepted.
[[noreturn]] static void TraceUntilKilled(const std::string& dir, std::atomic<uint64_t>* accepted,
                                          int signal = 0, int faulting = 0) {
  const rlimit noCore{0, 0};
  ::setrlimit(RLIMIT_CORE, &noCore);
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  if (!mgr->Init("crash", "", dir, "crash test\n", false, false)) ::_exit(3);
  std::vector<std::thread> threads;
  std::atomic<bool> go{false};
  for (int f = 0; f < faulting; ++f) {
    threads.emplace_back([&, signal] {
      mgr->Trace("c", LEVEL_INFO, "faulting", nullptr, false, false);  // held back until the report
      while (!go.load()) std::this_thread::yield();
      CrashHere(signal);
    });
  }
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
  if (faulting > 0) std::this_thread::sleep_for(std::chrono::milliseconds(30)), go.store(true);
  for (std::thread& thread : threads) thread.join();
  ToviDebugMgr::Destroy();
  ::_exit(0);
}

// Every thread's records in the files of dir are a gap-free prefix from 0;
// how many of the accepted ones are not there.
static uint64_t LostRecords(const std::string& dir, const std::atomic<uint64_t>* accepted, std::string* all = nullptr) {
  std::vector<std::vector<int>> seen(kThreads);
  for (const std::string& name : ListDir(dir)) {
    bool whole = true;
    const std::string text = ReadGz(dir + name, &whole);
    EXPECT_TRUE(whole && !EndsWith(name, ".tmp")) << name;
    if (all != nullptr) *all += text;
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
    EXPECT_EQ(seen[t], prefix) << "thread " << t << ": a gap or a repeat";
    EXPECT_LE(prefix.size(), accepted[t].load() + 1) << "thread " << t;
    lost += accepted[t].load() > prefix.size() ? accepted[t].load() - prefix.size() : 0;
  }
  return lost;
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

    const uint64_t lost = LostRecords(dir.path(), accepted);
    // The next start wrote what the killed writer had accepted, once each,
    // and removed the journal it found.
    EXPECT_EQ(lost, 0u);
    EXPECT_EQ(ListDir(dir.path(), true), ListDir(dir.path()));
  }
  std::printf("%d run(s) killed during a compression\n", duringCompression);
  ::munmap(accepted, 4096);
}

// A fault on one thread, or on two at once, while others trace: the process
// dies of the signal within a few seconds, the main log holds a crash report
// that names the signal and the faulting function (after the record held
// back for it), and every record accepted before the fault is in a file.
TEST(CrashConsistency, AFaultLeavesACrashReportAndLosesNoAcceptedRecord) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers' own fault handlers and signal checks stand in the way";
#endif
  ScopedRoot root;
  auto* accepted = static_cast<std::atomic<uint64_t>*>(::mmap(nullptr, 4096,
      PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(accepted, MAP_FAILED);
  const std::vector<std::pair<int, int>> faults = {{SIGSEGV, 1}, {SIGBUS, 1}, {SIGFPE, 1},
                                                   {SIGILL, 1}, {SIGABRT, 1}, {SIGSEGV, 2},
                                                   {kOverflow, 1}};
  for (const auto& [fault, faulting] : faults) {
    const int signal = fault == kOverflow ? SIGSEGV : fault;
    SCOPED_TRACE(std::string(strsignal(signal)) + " on " + std::to_string(faulting) + " thread(s)");
    TempDir dir;
    for (int t = 0; t < kThreads; ++t) accepted[t].store(0);
    std::fflush(stdout);
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) TraceUntilKilled(dir.path(), accepted, fault, faulting);
    int status = 0;
    ::waitpid(child, &status, 0);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal) << status;
    EXPECT_LT(seconds, 10.0);
    // The next start finishes an archive the death interrupted.
    NewWriter(dir.path(), "crash", "", 10, 1u << 30, 50).reset();

    std::string text;
    EXPECT_EQ(LostRecords(dir.path(), accepted, &text), 0u);
    const std::string report = std::string("crash ASSERT: Fatal signal ") + (signal == SIGSEGV ? "SIGSEGV" :
        signal == SIGBUS ? "SIGBUS" : signal == SIGFPE ? "SIGFPE" : signal == SIGILL ? "SIGILL" : "SIGABRT");
    const std::size_t at = text.find(report);
    ASSERT_NE(at, std::string::npos) << text.substr(text.size() > 2000 ? text.size() - 2000 : 0);
    EXPECT_EQ(Occurrences(text, "Fatal signal"), 1u);
    EXPECT_NE(text.find(fault == kOverflow ? "Recurse" : "CrashHere", at), std::string::npos) << text.substr(at, 2000);
    EXPECT_LT(text.find("c INFO: faulting"), at);
  }
  ::munmap(accepted, 4096);
}
