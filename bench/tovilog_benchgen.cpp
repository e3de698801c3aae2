// tovilog_benchgen - the file set and the zlib baseline for
// bench/tovilog_bench.sh.
//
//   tovilog_benchgen write DIR MB     traces about MB MiB of records through
//                                     the library into DIR/logs: a main
//                                     writer and an application writer,
//                                     50 MiB files, archived at roll-over
//   tovilog_benchgen inflate FILE...  decompresses the files with zlib and
//                                     prints the bytes of text and seconds
#include <zlib.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "AsnType.h"
#include "ToviDebugMgr.h"

namespace fs = std::filesystem;

namespace {

class BenchAsn : public AsnType {
public:
  AsnType* Clone() const override { return new BenchAsn(*this); }
  void Print(std::ostream& os) const override {
    os << "value Setup ::= {\n  callId 4711,\n  party \"+4930123456\"\n}";
  }
};

int Write(const std::string& dir, long long megabytes) {
  const fs::path root = fs::absolute(dir) / "root";
  fs::create_directories(root / "etc/conf");
  std::ofstream(root / "etc/conf/default_debug.cfg")
      << "nEachFileMaxSize=50\nnEachProcessMaxZipNum=50\nnFiltLogBufSize=0\n";
  ::setenv("TOVI_ROOT", root.c_str(), 1);
  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  if (!mgr->Init("bench", "", (fs::absolute(dir) / "logs").string(), "bench set\n", false, false)) {
    std::fprintf(stderr, "Init failed\n");
    return 1;
  }
  const long long target = megabytes << 20;
  std::atomic<long long> written{0};
  const char* const modules[] = {"net", "db", "alarm", "billing", "sched"};
  const ToviLogLevel levels[] = {LEVEL_INFO, LEVEL_INFO, LEVEL_INFO, LEVEL_WARN,
                                 LEVEL_ERROR, static_cast<ToviLogLevel>(7)};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {
      const BenchAsn asn;
      char text[256];
      for (long long i = 0; written.load(std::memory_order_relaxed) < target; ++i) {
        const int n = std::snprintf(text, sizeof text,
                                    "worker %d request %lld from 10.%lld.%lld.%lld handled in "
                                    "%lld us, queue depth %lld, session %08llx",
                                    t, i, i % 200, i % 97, i % 13, i * 7 % 9973, i % 61, i * 2654435761LL);
        const char* module = modules[(i + t) % 5];
        const ToviLogLevel level = levels[i % 6];
        const bool withAsn = i % 1000 == 0;
        if (t == 2) {
          mgr->AppTrace(module, level, text, nullptr, false, true, "audit");
        } else {
          mgr->Trace(module, level, text, withAsn ? &asn : nullptr, false, true);
        }
        written.fetch_add(n + 30 + (withAsn ? 70 : 0), std::memory_order_relaxed);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  ToviDebugMgr::Destroy();
  return 0;
}

int Inflate(int argc, char** argv) {
  std::vector<char> buffer(1 << 20);
  unsigned long long bytes = 0;
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < argc; ++i) {
    gzFile in = gzopen(argv[i], "rb");
    if (in == nullptr) continue;
    gzbuffer(in, 256 * 1024);
    int n;
    while ((n = gzread(in, buffer.data(), static_cast<unsigned>(buffer.size()))) > 0) bytes += n;
    gzclose(in);
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("%llu %.3f\n", bytes, seconds);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::string(argv[1]) == "write") return Write(argv[2], std::atoll(argv[3]));
  if (argc >= 3 && std::string(argv[1]) == "inflate") return Inflate(argc - 2, argv + 2);
  std::fprintf(stderr, "usage: %s write DIR MB | inflate FILE...\n", argv[0]);
  return 2;
}
