// peer_harness.h - what every logger's benchmark shares, so that the loggers
// differ only in the few lines that set them up, call them and stop them.
//
// Each thread makes its calls with the same text, "Backup storage speeds
// (min): <n> MB/s", where <n> is unique across the run (thread * calls + i):
// counting the numbers found in the files afterwards shows a lost or doubled
// record. A call's latency is snprintf plus the logger call, as the product's
// own code pays it. The result is one markdown table row on stdout; the exit
// status is non-zero when the files do not hold every record exactly once.
#ifndef TOVI_BENCH_PEER_HARNESS_H
#define TOVI_BENCH_PEER_HARNESS_H

#include <sys/resource.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace peerbench {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr char kMarker[] = "Backup storage speeds (min): ";
constexpr char kTail[] = " MB/s";

struct Options {
  int threads = 1;
  int calls = 200000;              // per thread
  bool keep = false;               // leave the log files behind for a look
  std::set<std::string> flags;     // logger-specific switches, e.g. --unflushed
};

inline void Usage(const char* argv0, const std::set<std::string>& known) {
  std::fprintf(stderr, "usage: %s [--threads N] [--calls N] [--keep]", argv0);
  for (const std::string& flag : known) std::fprintf(stderr, " [%s]", flag.c_str());
  std::fprintf(stderr, "\n");
}

// `known` lists the switches this logger's executable understands.
inline bool ParseOptions(int argc, char** argv, Options& options,
                         const std::set<std::string>& known = {}) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool hasValue = i + 1 < argc;
    if (arg == "--threads" && hasValue) {
      options.threads = std::atoi(argv[++i]);
    } else if (arg == "--calls" && hasValue) {
      options.calls = std::atoi(argv[++i]);
    } else if (arg == "--keep") {
      options.keep = true;
    } else if (known.count(arg) != 0) {
      options.flags.insert(arg);
    } else {
      Usage(argv[0], known);
      return false;
    }
  }
  // The sequence numbers are ints; stay well inside them.
  if (options.threads < 1 || options.threads > 64 || options.calls < 1 ||
      static_cast<long long>(options.threads) * options.calls > 100000000LL) {
    std::fprintf(stderr, "threads must be 1..64, calls at least 1, threads * calls at most 1e8\n");
    return false;
  }
  return true;
}

// A directory of the run's own below TMPDIR (or /tmp), removed at the end
// unless the files are to be kept.
class ScratchDir {
public:
  ScratchDir(const std::string& tag, bool keep) : keep_(keep) {
    path_ = fs::temp_directory_path() / ("tovi-peer-" + tag + "-" + std::to_string(::getpid()));
    fs::create_directories(path_);
  }
  ~ScratchDir() {
    if (keep_) {
      std::fprintf(stderr, "log files kept in %s\n", path_.c_str());
      return;
    }
    std::error_code ec;
    fs::remove_all(path_, ec);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const fs::path& path() const { return path_; }

private:
  fs::path path_;
  bool keep_;
};

// What the timed part of a run leaves behind.
struct Workload {
  Clock::time_point start;                        // when the threads were let go
  std::vector<std::vector<uint32_t>> latencies;   // ns, per thread, per call
};

inline uint32_t SaturatedNs(Clock::duration d) {
  const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(d).count();
  return ns > static_cast<long long>(UINT32_MAX) ? UINT32_MAX : static_cast<uint32_t>(ns);
}

// Runs `call(number)` `calls` times on each of `threads` threads, each call
// timed. Latencies go into vectors that are sized and touched before the
// start, so no page fault or reallocation lands in a timed call. The threads
// wait at a common start line so that the rate covers them all.
template <typename Call>
Workload RunTimedCalls(const Options& options, Call call) {
  Workload run;
  run.latencies.assign(options.threads, std::vector<uint32_t>(options.calls, 0));
  std::atomic<int> ready{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> workers;
  for (int t = 0; t < options.threads; ++t) {
    workers.emplace_back([&, t] {
      std::vector<uint32_t>& latency = run.latencies[t];
      const int first = t * options.calls;
      ready.fetch_add(1);
      while (!go.load(std::memory_order_acquire)) std::this_thread::yield();
      for (int i = 0; i < options.calls; ++i) {
        const Clock::time_point t0 = Clock::now();
        call(first + i);
        latency[i] = SaturatedNs(Clock::now() - t0);
      }
    });
  }
  while (ready.load() < options.threads) std::this_thread::yield();
  run.start = Clock::now();
  go.store(true, std::memory_order_release);
  for (std::thread& w : workers) w.join();
  return run;
}

// The workload: each call formats its text with snprintf, and `log(text,
// length)` hands it to the logger; both are timed.
template <typename Log>
Workload RunWorkload(const Options& options, Log log) {
  return RunTimedCalls(options, [&log](int number) {
    char text[128];
    const int length = std::snprintf(text, sizeof text, "Backup storage speeds (min): %d MB/s", number);
    log(static_cast<const char*>(text), length);
  });
}

// The same workload for a logger that formats in its own call, as a printf
// call or a logging macro does: `log(number)` is timed alone, with nothing
// formatted before it.
template <typename Log>
Workload RunFormattingWorkload(const Options& options, Log log) {
  return RunTimedCalls(options, log);
}

struct Percentiles {
  double p50 = 0, p99 = 0, p999 = 0, max = 0;  // ns
};

// Nearest-rank percentiles over every call of every thread.
inline Percentiles Summarise(const std::vector<std::vector<uint32_t>>& perThread) {
  std::vector<uint32_t> all;
  for (const auto& v : perThread) all.insert(all.end(), v.begin(), v.end());
  Percentiles p;
  if (all.empty()) return p;
  std::sort(all.begin(), all.end());
  auto rank = [&](double q) {
    std::size_t r = static_cast<std::size_t>(q * static_cast<double>(all.size()) + 0.999999);
    return static_cast<double>(all[std::min(all.size(), std::max<std::size_t>(r, 1)) - 1]);
  };
  p.p50 = rank(0.50);
  p.p99 = rank(0.99);
  p.p999 = rank(0.999);
  p.max = all.back();
  return p;
}

// ru_maxrss is in KiB on Linux.
inline double PeakRssMiB() {
  struct rusage usage {};
  if (::getrusage(RUSAGE_SELF, &usage) != 0) return 0;
  return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

inline bool EndsWith(const std::string& s, const char* tail) {
  const std::size_t n = std::strlen(tail);
  return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}

// Every plain log file and gzip archive directly in `dir`.
inline std::vector<std::string> LogFilesIn(const fs::path& dir) {
  std::vector<std::string> files;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(dir, ec)) {
    const std::string name = entry.path().string();
    if (entry.is_regular_file(ec) && (EndsWith(name, ".log") || EndsWith(name, ".log.gz"))) {
      files.push_back(name);
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

struct RecordCount {
  long long found = 0;  // lines with the marker
  long long lost = 0;   // sequence numbers never found
  long long twice = 0;  // found more than once (each extra copy counts)
  long long garbled = 0;  // a marker without a valid number and tail after it
  bool unreadable = false;
  bool Ok() const { return lost == 0 && twice == 0 && garbled == 0 && !unreadable; }
};

// Checks one line: the marker, a number in range, then the tail as the last
// thing on the line, so that a record cut short or run into the next one is
// caught and not merely counted.
inline void CountLine(const char* line, std::vector<uint8_t>& seen, RecordCount& count) {
  const char* marker = std::strstr(line, kMarker);
  if (marker == nullptr) return;
  ++count.found;
  char* end = nullptr;
  const long n = std::strtol(marker + sizeof kMarker - 1, &end, 10);
  const std::size_t tailLen = sizeof kTail - 1;
  const bool tailOk = std::strncmp(end, kTail, tailLen) == 0 &&
                      (end[tailLen] == '\0' || std::strcmp(end + tailLen, "\n") == 0 ||
                       std::strcmp(end + tailLen, "\r\n") == 0);
  if (!tailOk || n < 0 || static_cast<std::size_t>(n) >= seen.size()) {
    ++count.garbled;
    return;
  }
  if (seen[n] != 0) ++count.twice;
  seen[n] = 1;
}

// zlib reads plain files as they are, so one reader serves the open log
// files and the archives alike.
inline RecordCount CountRecords(const std::vector<std::string>& files, long long expected) {
  RecordCount count;
  std::vector<uint8_t> seen(static_cast<std::size_t>(expected), 0);
  std::vector<char> line(1 << 16);
  for (const std::string& file : files) {
    gzFile in = gzopen(file.c_str(), "rb");
    if (in == nullptr) {
      count.unreadable = true;
      continue;
    }
    gzbuffer(in, 1 << 18);
    while (gzgets(in, line.data(), static_cast<int>(line.size())) != nullptr) {
      CountLine(line.data(), seen, count);
    }
    int err = Z_OK;
    gzerror(in, &err);
    if (err != Z_OK && err != Z_STREAM_END) count.unreadable = true;
    gzclose(in);
  }
  count.lost = std::count(seen.begin(), seen.end(), uint8_t{0});
  return count;
}

// Latencies are printed in µs; the digits shown shrink as the value grows.
inline std::string Micros(double ns) {
  const double us = ns / 1000.0;
  char buf[32];
  std::snprintf(buf, sizeof buf, us < 10 ? "%.2f" : us < 1000 ? "%.1f" : "%.0f", us);
  return buf;
}

inline std::string Verdict(const RecordCount& c) {
  if (c.Ok()) return "ok";
  char buf[128];
  std::snprintf(buf, sizeof buf, "FAIL: %lld lost, %lld twice, %lld garbled%s", c.lost, c.twice,
                c.garbled, c.unreadable ? ", unreadable file" : "");
  return buf;
}

// `onDisk` is the moment the logger's shutdown returned: the rate covers the
// whole way from the first call to the last record in a file. Prints the
// row; returns the exit status.
inline int Report(const std::string& logger, const Options& options, const Workload& run,
                  Clock::time_point onDisk, const std::vector<std::string>& files) {
  const double rssMiB = PeakRssMiB();  // before counting adds its own memory
  const long long expected = static_cast<long long>(options.threads) * options.calls;
  const double seconds = std::chrono::duration<double>(onDisk - run.start).count();
  const Percentiles p = Summarise(run.latencies);
  const RecordCount count = CountRecords(files, expected);
  std::printf("| %s | %d | %s | %s | %s | %s | %.0f | %.1f | %lld of %lld, %zu file%s | %s |\n",
              logger.c_str(), options.threads, Micros(p.p50).c_str(), Micros(p.p99).c_str(),
              Micros(p.p999).c_str(), Micros(p.max).c_str(),
              seconds > 0 ? static_cast<double>(expected) / seconds : 0.0, rssMiB, count.found,
              expected, files.size(), files.size() == 1 ? "" : "s", Verdict(count).c_str());
  std::fflush(stdout);
  return count.Ok() ? 0 : 1;
}

}  // namespace peerbench

#endif
