// bench_tovi - the peer workload through ToviDebugMgr::Trace, with the
// library's default 5 MiB roll-over, so files roll and are compressed while
// the callers trace.
#include <fstream>
#include <string>

#include "ToviDebugMgr.h"
#include "peer_harness.h"

namespace {

// The default keeps 10 archives per writer and would prune records the
// count has to find; 50 archives hold about 3.5 million records.
bool WriteDebugConfig(const peerbench::fs::path& root) {
  const peerbench::fs::path conf = root / "etc" / "conf";
  std::error_code ec;
  peerbench::fs::create_directories(conf, ec);
  std::ofstream out(conf / "default_debug.cfg");
  out << "nEachProcessMaxZipNum=50\n";
  if (const char* size = std::getenv("BENCH_FILE_MB")) out << "nEachFileMaxSize=" << size << "\n";
  if (const char* target = std::getenv("BENCH_SYSLOG")) out << "syslog_target=" << target << "\n";
  // For a tls:// target: a directory with ca.pem, client.pem and client.key.
  if (const char* pki = std::getenv("BENCH_SYSLOG_TLS_DIR")) {
    const std::string dir = std::string(pki) + "/";
    out << "syslog_tls_ca_file=" << dir << "ca.pem\nsyslog_tls_cert_file=" << dir
        << "client.pem\nsyslog_tls_key_file=" << dir << "client.key\n";
  }
  return static_cast<bool>(out.flush());
}

}  // namespace

int main(int argc, char** argv) {
  peerbench::Options options;
  if (!peerbench::ParseOptions(argc, argv, options)) return 2;
  peerbench::ScratchDir dir("tovi", options.keep);
  if (!WriteDebugConfig(dir.path())) {
    std::fprintf(stderr, "cannot write the debug configuration below %s\n", dir.path().c_str());
    return 2;
  }
  ::setenv("TOVI_ROOT", dir.path().c_str(), 1);
  const peerbench::fs::path logs = dir.path() / "logs";

  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  if (!mgr->Init("bench", "", logs.string() + "/", "", false, false)) {
    std::fprintf(stderr, "Init failed for %s\n", logs.c_str());
    return 2;
  }
  const peerbench::Workload run = peerbench::RunWorkload(options, [mgr](const char* text, int) {
    mgr->Trace("S", LEVEL_INFO, text, nullptr, false, true);
  });
  ToviDebugMgr::Destroy();  // returns once every queued record is in a file
  const peerbench::Clock::time_point onDisk = peerbench::Clock::now();
  return peerbench::Report("ToviDebugMgr::Trace", options, run, onDisk,
                           peerbench::LogFilesIn(logs));
}
