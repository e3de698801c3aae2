// ConsoleOutput.cpp - the writer thread's console records.
#include "logwriter/ConsoleOutput.h"

#include <algorithm>
#include <cstdio>

#include "logwriter/LogFileSet.h"
#include "logwriter/LogFormat.h"
#include "port/ToviPort.h"

namespace {
// How long a batch may wait for a console that has been taking output.
constexpr unsigned kConsoleWaitMs = 200;
}  // namespace

void ConsoleOutput::Add(const SinkRecord& record) {
  if (!record.toConsole) return;
  const std::size_t before = m_batch.size();
  try {
    m_batch.append(record.head, record.headLength).append(record.text, record.textLength);
    if (record.lineEnd) m_batch += '\n';
    m_batch += record.asn;
    m_recordEnds.push_back(m_batch.size());
  } catch (...) {
    m_batch.resize(before);  // no part of a record that cannot be shown whole
  }
}

void ConsoleOutput::HandOver() {
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
  if (!stalled) ReportDrops();
}

void ConsoleOutput::ReportDrops() {
  if (m_dropped == 0) return;
  char line[160];
  logformat::CountLine(line, sizeof line, m_dropped, logformat::kNotShown);
  m_files.WriteText(line);
  m_dropped = 0;
}
