// tovi_demo - a small server process that shows the library at work.
//
// It sets up an installation root of its own (configuration written on the
// first run and left for you to edit), initialises the trace manager, and
// lets a few worker threads trace for some seconds through several
// sub-modules and two applications. Files roll over at 1 MiB, so roll-over,
// compression and retention happen while you watch. At the end it stops the
// manager and prints what was written and where.
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "ToviBaseUtil.h"
#include "ToviDebugMgr.h"
#include "ToviInterString.h"

namespace fs = std::filesystem;

namespace {

struct Options {
  int threads = 4;
  double seconds = 5.0;
  long long records = 0;  // 0: run for `seconds`
  std::string root = "tovi-demo-root";
  std::string syslog;  // a collector to forward to, as syslog_target takes it
};

void Usage(const char* argv0) {
  std::printf(
      "usage: %s [--threads N] [--seconds S | --records N] [--root DIR]\n"
      "          [--syslog tcp://HOST:PORT | udp://HOST:PORT]\n"
      "  --threads N   worker threads that trace (default 4)\n"
      "  --seconds S   how long the workers trace (default 5)\n"
      "  --records N   stop after about N records instead of after a time\n"
      "  --root DIR    installation root to use as TOVI_ROOT (default ./tovi-demo-root);\n"
      "                its etc/conf/*.cfg are written on the first run and kept after\n"
      "  --syslog URL  also forward every logged record to that syslog collector\n",
      argv0);
}

bool ParseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool hasValue = i + 1 < argc;
    if (arg == "--help" || arg == "-h") {
      Usage(argv[0]);
      std::exit(0);
    } else if (arg == "--threads" && hasValue) {
      options.threads = std::atoi(argv[++i]);
    } else if (arg == "--seconds" && hasValue) {
      options.seconds = std::atof(argv[++i]);
    } else if (arg == "--records" && hasValue) {
      options.records = std::atoll(argv[++i]);
    } else if (arg == "--root" && hasValue) {
      options.root = argv[++i];
    } else if (arg == "--syslog" && hasValue) {
      options.syslog = argv[++i];
    } else {
      std::fprintf(stderr, "unknown or incomplete option: %s\n", arg.c_str());
      Usage(argv[0]);
      return false;
    }
  }
  if (options.threads < 1 || options.threads > 64 || options.seconds <= 0 || options.records < 0) {
    std::fprintf(stderr, "threads must be 1..64, seconds above 0, records 0 or more\n");
    return false;
  }
  return true;
}

void WriteIfMissing(const std::string& path, const char* text) {
  if (fs::exists(path)) return;
  std::ofstream out(path);
  out << text;
  std::printf("wrote %s\n", path.c_str());
}

// Level strings read left to right from bit 0: "1100" logs ASSERT and ERROR.
const char kDebugConfig[] =
    "# Debug configuration of the demo process; edit and run again.\n"
    "nFiltLogBufSize=50\n"
    "nMaxFileNum=10\n"
    "# Roll over at 1 MiB and keep 5 archives per writer.\n"
    "nEachFileMaxSize=1\n"
    "nEachProcessMaxZipNum=5\n"
    "debug_level=1100\n"
    "debug_output=01\n"
    "# net logs everything to the file; db logs errors and info; alarm also prints.\n"
    "net_level=1111\n"
    "net_output=01\n"
    "db_level=1101\n"
    "db_output=01\n"
    "alarm_level=11\n"
    "alarm_output=11\n";

const char kProductConfig[] =
    "# Product configuration of the demo process.\n"
    "EnablePrint=0\n"
    "EnableLog=1\n";

std::atomic<long long> g_traced{0};
std::atomic<bool> g_stop{false};

void Worker(int id, long long quota) {
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  const ToviInterString db(std::string("db"));
  char text[160];
  for (long long i = 0; !g_stop.load(std::memory_order_relaxed); ++i) {
    if (quota > 0 && i >= quota) break;
    std::snprintf(text, sizeof text, "worker %d request %lld handled in %lld us", id, i, i % 997);
    mgr->Trace("net", LEVEL_INFO, text, nullptr, false, false);
    // db does not log warnings: these wait in the writer, and the next
    // assertion brings the most recent of them out in front of it.
    mgr->Printf(LEVEL_WARN, db, "worker %d slow query %lld", id, i);
    mgr->Printf(LEVEL_INFO, db, "worker %d commit %lld", id, i);
    if (i % 4 == 0) {
      mgr->AppTrace("billing", LEVEL_INFO, text, nullptr, false, true, id % 2 ? "billing" : "report");
    }
    if (i == 20000 && id == 0) {
      mgr->Trace("alarm", LEVEL_ASSERT, "worker 0 demo assertion: held-back warnings above",
                 nullptr, false, false);
    }
    g_traced.fetch_add(i % 4 == 0 ? 4 : 3, std::memory_order_relaxed);
  }
}

struct DirSummary {
  int plain = 0;
  int archived = 0;
  unsigned long long bytes = 0;
};

DirSummary Summarise(const std::string& dir) {
  DirSummary s;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(dir, ec)) {
    if (!entry.is_regular_file(ec)) continue;
    const std::string name = entry.path().filename().string();
    if (name.size() > 7 && name.compare(name.size() - 7, 7, ".log.gz") == 0) {
      ++s.archived;
    } else if (name.size() > 4 && name.compare(name.size() - 4, 4, ".log") == 0) {
      ++s.plain;
    } else {
      continue;
    }
    s.bytes += entry.file_size(ec);
  }
  return s;
}

// A path as one shell word, for a command to copy; quoted only when needed.
std::string ShellQuoted(const std::string& path) {
  const bool plain = !path.empty() && path.find_first_not_of(
                                          "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                          "0123456789_./+-:=@%,") == std::string::npos;
  if (plain) return path;
  std::string quoted = "'";
  for (char c : path) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// The tovilog built beside the demo, else the one on the PATH.
std::string TovilogCommand() {
  std::error_code ec;
  const fs::path self = fs::read_symlink("/proc/self/exe", ec);
  const fs::path built = self.parent_path().parent_path() / "tools/tovilog/tovilog";
  return !ec && fs::exists(built, ec) ? built.string() : "tovilog";
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, options)) return 2;

  std::error_code ec;
  const std::string root = fs::absolute(options.root, ec).string();
  ::setenv("TOVI_ROOT", root.c_str(), 1);
  if (ToviMakeDirEx(ToviGetDefaultCfgPath().c_str()) != 0 ||
      ToviMakeDirEx(ToviGetDefaultLogPath().c_str()) != 0) {
    std::fprintf(stderr, "cannot create the directories below %s\n", root.c_str());
    return 1;
  }
  WriteIfMissing(ToviGetDefaultDebugCfgFile(), kDebugConfig);
  WriteIfMissing(ToviGetDefaultCfgFile(), kProductConfig);
  const std::string logDir = ToviGetDefaultLogPath();

  // Forwarding comes from the configuration: a copy of it with the target.
  std::string debugCfg;
  if (!options.syslog.empty()) {
    debugCfg = ToviGetDefaultTempPath() + "demo_syslog_debug.cfg";
    ToviMakeDirEx(ToviGetDefaultTempPath().c_str());
    std::ifstream in(ToviGetDefaultDebugCfgFile());
    std::ofstream out(debugCfg);
    for (std::string line; std::getline(in, line);) {
      if (line.rfind("syslog_target", 0) != 0) out << line << "\n";
    }
    out << "syslog_target=" << options.syslog << "\n";
  }

  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  if (mgr == nullptr ||
      !mgr->Init("demo", debugCfg, "", "tovi_demo: worker threads tracing\n", false, false)) {
    std::fprintf(stderr, "the trace manager could not be initialised (log dir %s)\n", logDir.c_str());
    return 1;
  }
  mgr->SetDefSubModuleName("net");
  ToviOutputFrmtString("demo started with %d threads", options.threads);

  std::printf("tracing with %d threads into %s\n", options.threads, logDir.c_str());
  const auto start = std::chrono::steady_clock::now();
  const long long quota = options.records > 0 ? options.records / options.threads / 3 + 1 : 0;
  std::vector<std::thread> workers;
  for (int i = 0; i < options.threads; ++i) workers.emplace_back(Worker, i, quota);

  auto elapsed = [&] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  std::thread progress([&] {
    double next = 1.0;
    while (!g_stop.load()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      if (elapsed() < next) continue;
      next += 1.0;
      const DirSummary s = Summarise(logDir);
      std::printf("  %5.1fs  %10lld records  %3d plain + %3d archived files  %8.1f MiB\n",
                  elapsed(), g_traced.load(), s.plain, s.archived, s.bytes / 1048576.0);
      std::fflush(stdout);
    }
  });
  if (options.records > 0) {
    for (auto& w : workers) w.join();
    g_stop = true;
  } else {
    while (elapsed() < options.seconds) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    g_stop = true;
    for (auto& w : workers) w.join();
  }
  progress.join();
  const double tracing = elapsed();

  ToviOutputFrmtString("demo finished after %.2f s", tracing);
  ToviDebugMgr::Destroy();  // writes out everything still queued
  const double total = elapsed();

  const DirSummary s = Summarise(logDir);
  const long long records = g_traced.load();
  std::printf("\nsummary\n");
  std::printf("  records traced      %lld (%d threads)\n", records, options.threads);
  std::printf("  files               %d plain, %d archived (.gz), %.1f MiB on disk\n", s.plain,
              s.archived, s.bytes / 1048576.0);
  std::printf("  wall time           %.2f s tracing, %.2f s until every record was written\n",
              tracing, total);
  std::printf("  records per second  %.0f\n", records / total);
  std::printf("  logs                %s\n", logDir.c_str());
  std::printf("  read them with      %s %s --since -10m\n", ShellQuoted(TovilogCommand()).c_str(),
              ShellQuoted(logDir).c_str());
  return 0;
}
