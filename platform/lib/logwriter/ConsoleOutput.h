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

class LogFileSet;

class ConsoleOutput {
public:
  // One record, in one piece, so that records of different writers may
  // interleave on the console but never split each other. False when memory
  // is short.
  bool Add(const char* head, std::size_t headLen, const char* text, std::size_t textLen,
           bool lineEnd, const std::string& asn);
  // Puts the batch out; the count of what a stalled console did not take
  // goes into files once the console takes output again.
  void Flush(LogFileSet& files);
  // Says in files how many records were not shown, if any.
  void ReportDrops(LogFileSet& files);

private:
  std::string m_batch;
  // Where each record of m_batch ends, to count those a stalled console did
  // not take.
  std::vector<std::size_t> m_recordEnds;
  bool m_stalled = false;
  uint64_t m_dropped = 0;
};

#endif
