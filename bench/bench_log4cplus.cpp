// bench_log4cplus - the peer workload through log4cplus: an AsyncAppender in
// front of a FileAppender that flushes every record, as the trace manager's
// writer does.
#include <log4cplus/asyncappender.h>
#include <log4cplus/fileappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <memory>
#include <string>

#include "peer_harness.h"

namespace {

// The queue spdlog's row gets, instead of the appender's default of 100.
constexpr unsigned kQueueLimit = 8192;

log4cplus::Logger MakeLogger(const std::string& file) {
  log4cplus::SharedAppenderPtr sink(new log4cplus::FileAppender(
      LOG4CPLUS_STRING_TO_TSTRING(file), std::ios_base::trunc, /*immediateFlush=*/true));
  // Time, logger and level in front of the text, like the other rows' lines.
  sink->setLayout(std::unique_ptr<log4cplus::Layout>(
      new log4cplus::PatternLayout(LOG4CPLUS_TEXT("%D{%Y-%m-%d %H:%M:%S.%q} [%c] [%p] %m%n"))));
  log4cplus::SharedAppenderPtr async(new log4cplus::AsyncAppender(sink, kQueueLimit));
  log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("bench"));
  logger.addAppender(async);
  logger.setAdditivity(false);
  logger.setLogLevel(log4cplus::INFO_LOG_LEVEL);
  return logger;
}

}  // namespace

int main(int argc, char** argv) {
  peerbench::Options options;
  if (!peerbench::ParseOptions(argc, argv, options)) return 2;
  peerbench::ScratchDir dir("log4cplus", options.keep);
  const std::string file = (dir.path() / "log4cplus.log").string();

  log4cplus::Initializer initializer;
  const log4cplus::Logger logger = MakeLogger(file);
  const peerbench::Workload run =
      peerbench::RunWorkload(options, [&logger](const char* text, int) {
        LOG4CPLUS_INFO_STR(logger, LOG4CPLUS_C_STR_TO_TSTRING(text));
      });
  // Closing the appenders drains the asynchronous queue into the file.
  log4cplus::Logger::shutdown();
  const peerbench::Clock::time_point onDisk = peerbench::Clock::now();
  return peerbench::Report("log4cplus AsyncAppender", options, run, onDisk, {file});
}
