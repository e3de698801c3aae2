// ConsoleOutput.cpp - the writer thread's console records.
#include "logwriter/ConsoleOutput.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "logwriter/LogFileSet.h"
#include "logwriter/LogFormat.h"
#include "port/ToviPort.h"

namespace {
// How long a batch may wait for a console that has been taking output.
constexpr unsigned kConsoleWaitMs = 200;

// What the process printed through stdio goes out before the records that
// follow it, but only if that cannot block: the stream's lock may be held by
// a thread stuck on the same output, and its buffer (at most a pipe's page)
// goes out only when there is room for it by deadline.
void FlushStdioAhead(int64_t deadline) {
  if (!toviport::TryLockStdout()) return;
  const std::size_t pending = toviport::StdoutPending();
  if (pending > 0 && pending <= toviport::ConsoleAtomicWrite() &&
      toviport::ConsoleWritable(toviport::Console::kOut, deadline)) {
    toviport::FlushStdoutLocked();
  }
  toviport::UnlockStdout();
}
}  // namespace

std::size_t ConsoleOutput::WriteBounded(toviport::Console console, const char* text,
                                        std::size_t size, unsigned waitMs) {
  // Pieces no larger than a pipe takes at once: once the output has room, a
  // write that small never blocks.
  const int64_t deadline = toviport::SteadyMs() + waitMs;
  if (console == toviport::Console::kOut) FlushStdioAhead(deadline);
  const std::size_t maxPiece = toviport::ConsoleAtomicWrite();
  std::size_t written = 0;
  while (written < size) {
    const int64_t left = deadline - toviport::SteadyMs();
    if (!toviport::ConsoleWritable(console, deadline)) break;
    const std::size_t piece = size - written < maxPiece ? size - written : maxPiece;
    const long n = toviport::ConsoleWriteOnce(console, text + written, piece);
    if (n > 0) {
      written += static_cast<std::size_t>(n);
    } else if (n < 0 && n != -EINTR && n != -EAGAIN) {
      break;
    } else if (left <= 0) {
      break;
    }
  }
  return written;
}

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
      WriteBounded(toviport::Console::kOut, m_batch.data(), m_batch.size(),
                   m_stalled ? 0 : kConsoleWaitMs);
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
