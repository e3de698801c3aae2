// bench_tovi - the peer workload through ToviDebugMgr::Trace, with the
// library's default 5 MiB roll-over, so files roll and are compressed while
// the callers trace.
#include <fstream>
#include <string>

#include "ToviDebugMgr.h"
#include "ToviInterString.h"
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
  // Printf has no demands of its own: sub-module "S" logs INFO to the file.
  out << "S_level=1111\nS_output=01\n";
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
  if (!peerbench::ParseOptions(argc, argv, options, {"--printf"})) return 2;
  // --printf: ToviDebugMgr::Printf formats in the call; else the harness
  // formats with snprintf and Trace takes the text.
  const bool printf = options.flags.count("--printf") != 0;
  peerbench::ScratchDir dir(printf ? "tovi-printf" : "tovi", options.keep);
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
  const ToviInterString subModule("S");
  const peerbench::Workload run =
      printf ? peerbench::RunFormattingWorkload(options, [mgr, &subModule](int n) {
                 mgr->Printf(LEVEL_INFO, subModule, "Backup storage speeds (min): %d MB/s", n);
               })
             : peerbench::RunWorkload(options, [mgr](const char* text, int) {
                 mgr->Trace("S", LEVEL_INFO, text, nullptr, false, true);
               });
  ToviDebugMgr::Destroy();  // returns once every queued record is in a file
  const peerbench::Clock::time_point onDisk = peerbench::Clock::now();
  return peerbench::Report(printf ? "ToviDebugMgr::Printf" : "ToviDebugMgr::Trace", options, run,
                           onDisk, peerbench::LogFilesIn(logs));
}
