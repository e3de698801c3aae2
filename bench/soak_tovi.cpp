// soak_tovi - the two halves of bench/soak.sh.
//
//   soak_tovi run ROOT THREADS RECORDS
//     Traces RECORDS records on each of THREADS threads into ROOT/logs/ (with
//     TOVI_ROOT=ROOT, so ROOT/etc/conf/default_debug.cfg sets the roll-over),
//     then destroys the manager and prints, as key=value words, the rate
//     from the first call until every record is in a file, the peak RSS and
//     the slowest Trace call.
//   soak_tovi check THREADS RECORDS FILE...
//     Reads the files (archives through zlib) in the order of their names,
//     which is the order the writer made them, and counts the records lost,
//     duplicated, out of their thread's order, or damaged.
//
// Each record says which thread sent it and its number on that thread, so a
// lost, doubled or reordered record is found however the files rolled.
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ToviDebugMgr.h"
#include "peer_harness.h"

namespace {

using peerbench::Clock;
constexpr char kMarker[] = "S INFO: soak ";

struct ThreadResult {
  uint32_t worstNs = 0;
  long long overOneMs = 0;
};

int Run(const std::string& root, int threads, long long records) {
  ::setenv("TOVI_ROOT", root.c_str(), 1);
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  if (!mgr->Init("soak", "", root + "/logs/", "soak run\n", false, false)) {
    std::fprintf(stderr, "Init failed below %s\n", root.c_str());
    return 2;
  }

  std::vector<ThreadResult> results(static_cast<std::size_t>(threads));
  std::atomic<int> ready{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      ThreadResult& result = results[static_cast<std::size_t>(t)];
      ready.fetch_add(1);
      while (!go.load(std::memory_order_acquire)) std::this_thread::yield();
      char text[128];
      for (long long n = 0; n < records; ++n) {
        std::snprintf(text, sizeof text, "soak %d %lld quick brown fox jumps over the lazy dog", t,
                      n);
        const Clock::time_point t0 = Clock::now();
        mgr->Trace("S", LEVEL_INFO, text, nullptr, false, true);
        const uint32_t ns = peerbench::SaturatedNs(Clock::now() - t0);
        result.worstNs = std::max(result.worstNs, ns);
        if (ns > 1000000) ++result.overOneMs;
      }
    });
  }
  while (ready.load() < threads) std::this_thread::yield();
  const Clock::time_point start = Clock::now();
  go.store(true, std::memory_order_release);
  for (std::thread& w : workers) w.join();
  ToviDebugMgr::Destroy();  // returns once every queued record is in a file
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();

  ThreadResult all;
  for (const ThreadResult& r : results) {
    all.worstNs = std::max(all.worstNs, r.worstNs);
    all.overOneMs += r.overOneMs;
  }
  std::printf("records_per_s=%.0f peak_rss_mib=%.1f worst_call_us=%.0f calls_over_1ms=%lld\n",
              static_cast<double>(records) * threads / seconds, peerbench::PeakRssMiB(),
              all.worstNs / 1000.0, all.overOneMs);
  return 0;
}

std::string SortKey(const std::string& path) {
  std::string name = path.substr(path.find_last_of('/') + 1);
  if (peerbench::EndsWith(name, ".gz")) name.resize(name.size() - 3);
  return name;
}

int Check(int threads, long long records, std::vector<std::string> files) {
  std::sort(files.begin(), files.end(),
            [](const std::string& a, const std::string& b) { return SortKey(a) < SortKey(b); });
  std::vector<std::vector<uint8_t>> seen(static_cast<std::size_t>(threads),
                                         std::vector<uint8_t>(static_cast<std::size_t>(records)));
  std::vector<long long> last(static_cast<std::size_t>(threads), -1);
  long long duplicated = 0, outOfOrder = 0, damaged = 0, unreadable = 0;
  std::vector<char> line(1 << 16);
  for (const std::string& file : files) {
    gzFile in = gzopen(file.c_str(), "rb");
    if (in == nullptr) {
      ++unreadable;
      continue;
    }
    gzbuffer(in, 1 << 18);
    while (gzgets(in, line.data(), static_cast<int>(line.size())) != nullptr) {
      const char* marker = std::strstr(line.data(), kMarker);
      if (marker == nullptr) continue;
      int t = -1;
      long long n = -1;
      if (std::sscanf(marker + sizeof kMarker - 1, "%d %lld", &t, &n) != 2 || t < 0 ||
          t >= threads || n < 0 || n >= records) {
        ++damaged;
        continue;
      }
      uint8_t& mark = seen[static_cast<std::size_t>(t)][static_cast<std::size_t>(n)];
      if (mark != 0) {
        ++duplicated;
        continue;
      }
      mark = 1;
      if (n < last[static_cast<std::size_t>(t)]) ++outOfOrder;
      last[static_cast<std::size_t>(t)] = std::max(last[static_cast<std::size_t>(t)], n);
    }
    int err = Z_OK;
    gzerror(in, &err);
    if (err != Z_OK && err != Z_STREAM_END) ++unreadable;
    gzclose(in);
  }
  long long lost = 0;
  for (const auto& marks : seen) lost += std::count(marks.begin(), marks.end(), uint8_t{0});
  std::printf(
      "files=%zu lost=%lld duplicated=%lld out_of_order=%lld damaged=%lld unreadable=%lld\n",
      files.size(), lost, duplicated, outOfOrder, damaged, unreadable);
  return lost + duplicated + outOfOrder + damaged + unreadable == 0 ? 0 : 1;
}

int Usage() {
  std::fprintf(stderr,
               "usage: soak_tovi run ROOT THREADS RECORDS\n"
               "       soak_tovi check THREADS RECORDS FILE...\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) return Usage();
  const std::string mode = argv[1];
  if (mode == "run" && argc == 5) {
    const int threads = std::atoi(argv[3]);
    const long long records = std::atoll(argv[4]);
    if (threads < 1 || threads > 256 || records < 1) return Usage();
    return Run(argv[2], threads, records);
  }
  if (mode == "check") {
    const int threads = std::atoi(argv[2]);
    const long long records = std::atoll(argv[3]);
    if (threads < 1 || threads > 256 || records < 1) return Usage();
    return Check(threads, records, std::vector<std::string>(argv + 4, argv + argc));
  }
  return Usage();
}
