// UnwritableNotice.h - what a writer says on standard error when its log
// files cannot be written, so that a directory that does not work is never
// lost in silence.
//
// A writer that cannot create or write its files goes on retrying, and its
// callers go on tracing, so the first sign of trouble must not depend on a
// log file. Each kind of failure (an errno value) is said once per writer,
// not once per retry; the return of a usable file is said once after any
// failure, with what was dropped meanwhile; and a writer that stops without
// a file says what it could not write. The lines go to standard error,
// never standard output, and with a bounded wait: a pipe that nobody reads
// never holds the writer or its stop. Used by the writer thread only (and
// by the stop sequence once that thread has ended).
#ifndef TOVI_LOGWRITER_UNWRITABLENOTICE_H
#define TOVI_LOGWRITER_UNWRITABLENOTICE_H

#include <cstdint>
#include <string>
#include <vector>

class UnwritableNotice {
public:
  // dir is the log directory as the writer names it.
  explicit UnwritableNotice(std::string dir) : m_dir(std::move(dir)) {}

  // The file could not be created (creating) or written, for error.
  void Failed(int error, bool creating);
  // A file takes records again; dropped of them were lost meanwhile.
  void Recovered(uint64_t dropped);
  // At the stop, with no file open: records that never reached one, and
  // whether they are kept for the next start.
  void Stopped(uint64_t unwritten, bool kept);
  // No journal could be made: records live in memory only.
  void NoJournal(int error);

private:
  void Say(const std::string& line);

  const std::string m_dir;
  std::vector<int> m_saidErrors;
  // A failure was said and no recovery since.
  bool m_failing = false;
  // Standard error did not take a line in time: the next ones do not wait.
  bool m_stalled = false;
};

#endif
