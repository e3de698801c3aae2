// ConsoleOutput.h - the records a writer shows on the console, gathered per
// batch and put out with a bounded wait.
//
// The console is whatever the process's standard output is: a terminal, a
// file, or a pipe that nobody may be reading. A writer that blocked on it
// would stop writing the file and could never be stopped, so the console
// gets a bounded wait per batch, none at all while it is known to be stuck,
// and what it did not take is dropped and counted in the log file.
#ifndef TOVI_LOGWRITER_CONSOLEOUTPUT_H
#define TOVI_LOGWRITER_CONSOLEOUTPUT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "logwriter/RecordSink.h"
#include "port/Process.h"

class LogFileSet;

class ConsoleOutput final : public RecordSink {
public:
  // What the console did not take is counted in files.
  explicit ConsoleOutput(LogFileSet& files) : m_files(files) {}
  ConsoleOutput(const ConsoleOutput&) = delete;
  ConsoleOutput& operator=(const ConsoleOutput&) = delete;

  // A record for the console joins the batch in one piece, so that records
  // of different writers may interleave on the console but never split each
  // other. A record that finds no memory is not shown.
  void Add(const SinkRecord& record) override;
  // Puts the batch out; the count of what a stalled console did not take
  // goes into the file once the console takes output again.
  void HandOver() override;
  // Says in the file how many records were not shown, if any.
  void ReportDrops();

  // Puts text on console, past its stdio stream (standard output's pending
  // bytes go first when that cannot block), waiting at most waitMs in all
  // for it to take the text: a pipe that nobody reads must not hold the
  // writer. Returns the bytes taken, a prefix of text.
  static std::size_t WriteBounded(toviport::Console console, const char* text, std::size_t size,
                                  unsigned waitMs);

private:
  LogFileSet& m_files;
  std::string m_batch;
  // Where each record of m_batch ends, to count those a stalled console did
  // not take.
  std::vector<std::size_t> m_recordEnds;
  bool m_stalled = false;
  uint64_t m_dropped = 0;
};

#endif
