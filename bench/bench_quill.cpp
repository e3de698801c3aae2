// bench_quill.cpp - Quill on the same workload, for comparison only: built
// when QUILL_DIR names a Quill source tree (header-only; it is never part of
// this repository). Its caller copies the arguments into a per-thread ring
// and its backend thread formats them, so the logging macro is timed alone,
// as ToviDebugMgr::Printf is, with nothing formatted before it.
#include <utility>

#include "peer_harness.h"
#include "quill/Backend.h"
#include "quill/Frontend.h"
#include "quill/LogMacros.h"
#include "quill/Logger.h"
#include "quill/sinks/FileSink.h"

int main(int argc, char** argv) {
  peerbench::Options options;
  if (!peerbench::ParseOptions(argc, argv, options)) return 2;
  peerbench::ScratchDir dir("quill", options.keep);
  const std::string file = (dir.path() / "quill.log").string();

  quill::Backend::start();
  auto sink = quill::Frontend::create_or_get_sink<quill::FileSink>(
      file,
      [] {
        quill::FileSinkConfig config;
        config.set_open_mode('w');
        return config;
      }(),
      quill::FileEventNotifier{});
  quill::Logger* logger = quill::Frontend::create_or_get_logger("bench", std::move(sink));

  const peerbench::Workload run = peerbench::RunFormattingWorkload(options, [logger](int n) {
    LOG_INFO(logger, "Backup storage speeds (min): {} MB/s", n);
  });
  // The backend writes out every queue before it stops.
  logger->flush_log();
  quill::Backend::stop();
  const peerbench::Clock::time_point onDisk = peerbench::Clock::now();
  return peerbench::Report("Quill (default backend)", options, run, onDisk, {file});
}
