// ConsoleOutput.cpp - the writer thread's console records.
#include "logwriter/ConsoleOutput.h"

#include <algorithm>
#include <cstdio>

#include "logwriter/LogFileSet.h"
#include "port/ToviPort.h"

namespace {
// How long a batch may wait for a console that has been taking output.
constexpr unsigned kConsoleWaitMs = 200;
}  // namespace

bool ConsoleOutput::Add(const char* head, std::size_t headLen, const char* text,
                        std::size_t textLen, bool lineEnd, const std::string& asn) {
  try {
    m_batch.append(head, headLen).append(text, textLen);
    if (lineEnd) m_batch += '\n';
    m_batch += asn;
    m_recordEnds.push_back(m_batch.size());
  } catch (...) {
    return false;
  }
  return true;
}

void ConsoleOutput::Flush(LogFileSet& files) {
  if (m_batch.empty()) return;
  const std::size_t taken =
      toviport::ConsoleWrite(m_batch.data(), m_batch.size(), m_stalled ? 0 : kConsoleWaitMs);
  const bool stalled = taken < m_batch.size();
  // Records that did not reach the console whole count as not shown.
  const auto shown = std::upper_bound(m_recordEnds.begin(), m_recordEnds.end(), taken);
  m_dropped += static_cast<uint64_t>(m_recordEnds.end() - shown);
  m_batch.clear();
  m_recordEnds.clear();
  m_stalled = stalled;
  if (!stalled) ReportDrops(files);
}

void ConsoleOutput::ReportDrops(LogFileSet& files) {
  if (m_dropped == 0) return;
  char line[160];
  std::snprintf(line, sizeof line,
                "%llu record(s) not shown on the console: it did not take them in time\n",
                static_cast<unsigned long long>(m_dropped));
  files.WriteText(line);
  m_dropped = 0;
}
