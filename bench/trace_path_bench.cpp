// trace_path_bench - what one trace call costs the calling thread.
//
// Measures the caller's side of ToviDebugMgr::Trace (format the record,
// queue it) against two peers measured in the same run:
//   - a plain asynchronous queue: snprintf into a std::string pushed onto a
//     mutex-guarded deque that a consumer thread writes to a file;
//   - synchronous logging: fprintf into a file and fflush, in the caller.
// Each run stays below the writer's queue capacity, so the numbers show the
// calling thread's work rather than the disk. Times are ns per call, the
// median of several rounds; the ratios are what to compare across machines.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ToviDebugMgr.h"

namespace fs = std::filesystem;

namespace {

constexpr int kCallsPerThread = 40000;
constexpr int kRounds = 5;

template <typename Call>
double NsPerCall(int threads, Call call) {
  std::vector<std::thread> workers;
  const auto start = std::chrono::steady_clock::now();
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      for (int i = 0; i < kCallsPerThread; ++i) call(t, i);
    });
  }
  for (auto& w : workers) w.join();
  const double ns = std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
  return ns / (static_cast<double>(threads) * kCallsPerThread);
}

class NaiveAsyncLog {
public:
  explicit NaiveAsyncLog(const std::string& path) : file_(std::fopen(path.c_str(), "w")) {
    consumer_ = std::thread([this] { Drain(); });
  }
  ~NaiveAsyncLog() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    ready_.notify_one();
    consumer_.join();
    std::fclose(file_);
  }
  void Log(int t, int i) {
    char text[160];
    std::snprintf(text, sizeof text, "S INFO: thread %d call %d of the benchmark", t, i);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.emplace_back(text);
    }
    ready_.notify_one();
  }

private:
  void Drain() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      ready_.wait(lock, [this] { return stop_ || !lines_.empty(); });
      while (!lines_.empty()) {
        std::string line = std::move(lines_.front());
        lines_.pop_front();
        lock.unlock();
        std::fputs(line.c_str(), file_);
        std::fputc('\n', file_);
        std::fflush(file_);
        lock.lock();
      }
      if (stop_) return;
    }
  }
  FILE* file_;
  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<std::string> lines_;
  bool stop_ = false;
  std::thread consumer_;
};

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

}  // namespace

int main() {
  const fs::path dir = fs::temp_directory_path() / ("tovi-bench-" + std::to_string(::getpid()));
  fs::create_directories(dir);
  ::setenv("TOVI_ROOT", dir.c_str(), 1);
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  if (!mgr->Init("bench", "", (dir / "logs").string(), "", false, false)) {
    std::fprintf(stderr, "Init failed\n");
    return 1;
  }

  std::printf("%-8s %14s %14s %14s %10s %10s\n", "threads", "Trace ns", "async peer ns",
              "sync peer ns", "vs async", "vs sync");
  for (int threads : {1, 2, 4}) {
    std::vector<double> trace, async, sync;
    for (int round = 0; round < kRounds; ++round) {
      trace.push_back(NsPerCall(threads, [&](int t, int i) {
        char text[160];
        std::snprintf(text, sizeof text, "thread %d call %d of the benchmark", t, i);
        mgr->Trace("S", LEVEL_INFO, text, nullptr, false, true);
      }));
      {
        NaiveAsyncLog peer((dir / "async.log").string());
        async.push_back(NsPerCall(threads, [&](int t, int i) { peer.Log(t, i); }));
      }
      FILE* f = std::fopen((dir / "sync.log").c_str(), "w");
      std::mutex m;
      sync.push_back(NsPerCall(threads, [&](int t, int i) {
        std::lock_guard<std::mutex> lock(m);
        std::fprintf(f, "S INFO: thread %d call %d of the benchmark\n", t, i);
        std::fflush(f);
      }));
      std::fclose(f);
      // Let the writer catch up so that the next round starts with room.
      std::this_thread::sleep_for(std::chrono::milliseconds(800));
    }
    const double t = Median(trace), a = Median(async), s = Median(sync);
    std::printf("%-8d %14.0f %14.0f %14.0f %9.2fx %9.2fx\n", threads, t, a, s, a / t, s / t);
  }
  ToviDebugMgr::Destroy();
  std::error_code ec;
  fs::remove_all(dir, ec);
  return 0;
}
