// DirectWriter.h - for tests that build a log writer themselves, without
// the manager in between.
#ifndef TOVI_TESTS_DIRECTWRITER_H
#define TOVI_TESTS_DIRECTWRITER_H

#include <string>

#include "logwriter/ToviLogWriter.h"

namespace tovitest {

// A writer's options, in the order the tests name them.
inline LogWriterOptions WriterOptions(const std::string& dir, const std::string& prefix,
                                      const std::string& header, unsigned heldBack,
                                      unsigned maxFileBytes, int kept) {
  LogWriterOptions options;
  options.logPath = dir;
  options.prefix = prefix;
  options.header = header;
  options.heldBackRecords = heldBack;
  options.maxFileBytes = maxFileBytes;
  options.archivesKept = kept;
  return options;
}

}  // namespace tovitest

#endif
