// ConsoleOutput.cpp - the writer thread's console records.
//
// The console is whatever the process's standard output is: a terminal, a
// file, or a pipe that nobody may be reading. A writer that blocked on it
// would stop writing the file and could never be stopped, so the console
// gets a bounded wait per batch, none at all while it is known to be stuck,
// and what it did not take is dropped and counted in the log file.
#include <algorithm>

#include <ace/OS_NS_stdio.h>

#include "logwriter/ToviLogWriter.h"
#include "port/ToviPort.h"

namespace {
// How long a batch may wait for a console that has been taking output.
constexpr unsigned kConsoleWaitMs = 200;
}  // namespace

void ToviLogWriter::FlushConsoleBatch() {
  if (m_ConsoleBatch.empty()) return;
  const std::size_t taken = toviport::ConsoleWrite(m_ConsoleBatch.data(), m_ConsoleBatch.size(),
                                                   m_bConsoleStalled ? 0 : kConsoleWaitMs);
  const bool stalled = taken < m_ConsoleBatch.size();
  // Records that did not reach the console whole count as not shown.
  const auto shown = std::upper_bound(m_ConsoleRecordEnds.begin(), m_ConsoleRecordEnds.end(), taken);
  m_nConsoleDropped += static_cast<uint64_t>(m_ConsoleRecordEnds.end() - shown);
  m_ConsoleBatch.clear();
  m_ConsoleRecordEnds.clear();
  m_bConsoleStalled = stalled;
  if (!stalled) ReportConsoleDrops();
}

void ToviLogWriter::ReportConsoleDrops() {
  if (m_nConsoleDropped == 0) return;
  char line[160];
  ACE_OS::snprintf(line, sizeof line,
                   "%llu record(s) not shown on the console: it did not take them in time\n",
                   static_cast<unsigned long long>(m_nConsoleDropped));
  WriteString(line);
  m_nConsoleDropped = 0;
}
