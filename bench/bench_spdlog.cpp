// bench_spdlog - the peer workload through an asynchronous spdlog logger
// writing one file. By default every record is flushed to the kernel as soon
// as it is written, as the trace manager's writer does; --unflushed leaves
// that to stdio's buffer and shows what the flushing costs.
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <memory>
#include <string>

#include "peer_harness.h"

int main(int argc, char** argv) {
  peerbench::Options options;
  if (!peerbench::ParseOptions(argc, argv, options, {"--unflushed"})) return 2;
  const bool unflushed = options.flags.count("--unflushed") != 0;
  peerbench::ScratchDir dir(unflushed ? "spdlog-unflushed" : "spdlog", options.keep);
  const std::string file = (dir.path() / "spdlog.log").string();

  std::shared_ptr<spdlog::logger> logger;
  try {
    // One writer thread, as the trace manager has; a full queue makes the
    // caller wait rather than lose the record.
    spdlog::init_thread_pool(8192, 1);
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(file, true);
    logger = std::make_shared<spdlog::async_logger>("bench", sink, spdlog::thread_pool(),
                                                    spdlog::async_overflow_policy::block);
    spdlog::register_logger(logger);
  } catch (const spdlog::spdlog_ex& e) {
    std::fprintf(stderr, "spdlog set-up failed: %s\n", e.what());
    return 2;
  }
  logger->set_level(spdlog::level::info);
  if (!unflushed) logger->flush_on(spdlog::level::trace);

  spdlog::logger* log = logger.get();
  const peerbench::Workload run =
      peerbench::RunWorkload(options, [log](const char* text, int length) {
        log->log(spdlog::level::info, spdlog::string_view_t(text, static_cast<std::size_t>(length)));
      });
  // Shutdown flushes, then ends the pool, whose thread writes out the queue
  // first; the last reference to the logger closes the file.
  logger.reset();
  spdlog::shutdown();
  const peerbench::Clock::time_point onDisk = peerbench::Clock::now();
  return peerbench::Report(unflushed ? "spdlog async, unflushed" : "spdlog async, flush each",
                           options, run, onDisk, {file});
}
