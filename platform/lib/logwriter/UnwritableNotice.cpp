// UnwritableNotice.cpp - the lines a writer says on standard error.
#include "logwriter/UnwritableNotice.h"

#include <algorithm>
#include <cstring>

#include "logwriter/ConsoleOutput.h"
#include "logwriter/RecordJournal.h"

namespace {
// How long a line may wait for a standard error that has been taking them.
constexpr unsigned kErrorWaitMs = 200;
constexpr char kLead[] = "tovibaseutil: ";

std::string Megabytes(std::size_t bytes) { return std::to_string((bytes + 500000) / 1000000); }
}  // namespace

// Short of memory, a line is not said.

void UnwritableNotice::Failed(int error, bool creating) try {
  m_failing = true;
  if (std::find(m_saidErrors.begin(), m_saidErrors.end(), error) != m_saidErrors.end()) return;
  m_saidErrors.push_back(error);
  Say(std::string(kLead) + (creating ? "cannot create" : "cannot write") + " log files in " +
      m_dir + ": " + std::strerror(error) + "; records wait up to about " +
      Megabytes(RecordJournal::kRingBytes) + " MB, then are counted as dropped\n");
} catch (...) {
}

void UnwritableNotice::Recovered(uint64_t dropped) try {
  if (!m_failing) return;
  m_failing = false;
  Say(std::string(kLead) + "log files in " + m_dir + " can be written again; " +
      std::to_string(dropped) + " record(s) were dropped meanwhile\n");
} catch (...) {
}

void UnwritableNotice::Stopped(uint64_t unwritten, bool kept) try {
  Say(std::string(kLead) + "stopped with no log file in " + m_dir + "; " +
      std::to_string(unwritten) +
      (kept ? " record(s) kept for the next start\n" : " record(s) could not be written\n"));
} catch (...) {
}

void UnwritableNotice::NoJournal(int error) try {
  Say(std::string(kLead) + "no record journal in " + m_dir + ": " + std::strerror(error) +
      "; records accepted but not yet written are lost if the process dies\n");
} catch (...) {
}

void UnwritableNotice::Say(const std::string& line) {
  const std::size_t taken = ConsoleOutput::WriteBounded(toviport::Console::kError, line.data(),
                                                        line.size(), m_stalled ? 0 : kErrorWaitMs);
  m_stalled = taken < line.size();
}
