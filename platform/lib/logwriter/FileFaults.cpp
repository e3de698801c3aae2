// FileFaults.cpp - what the writer thread does when its file lets it down:
// a write that fails (a full disk, a file-size limit, an I/O error), a file
// that cannot be created, or a file removed from under it with its
// directory.
//
// The aim is that no accepted record goes missing without a line saying so.
// A failed write leaves the file cut back to its last whole record and the
// pending records move on to a new file; a file that was removed is noticed
// within about a second and replaced, with a line counting what may have
// gone into it; and whatever had to be dropped meanwhile is counted in the
// next file. While no file can be had, producers stop waiting for room after
// about a second (see RecordQueue.h).
#include <cerrno>
#include <cstdio>

#include "logwriter/LogArchive.h"
#include "logwriter/LogFileSet.h"
#include "logwriter/RecordQueue.h"
#include "port/ToviPort.h"

namespace {
// The pause before another file is tried when none can be created or
// written.
constexpr unsigned kRetryMs = 1000;
// How often the writer asks whether its open file still has a name.
constexpr int64_t kLinkCheckMs = 500;
}  // namespace

bool LogFileSet::OpenUntilStopped() {
  while (!Create()) {
    m_queue.SetWriterStalled(true);
    if (!SleepUnlessStopped(kRetryMs)) return false;
  }
  m_queue.SetWriterStalled(false);
  return true;
}

void LogFileSet::ReportDroppedRecords() {
  const unsigned long long dropped = m_queue.TakeDropped();
  if (dropped == 0) return;
  char line[512];
  std::snprintf(line, sizeof line,
                "%llu record(s) dropped while the log file could not be written\n", dropped);
  WriteText(line);
}

void LogFileSet::Abandon() {
  if (m_fd < 0) return;
  toviport::CloseFile(m_fd);
  m_fd = -1;
  // A file that never received a whole line is only clutter.
  if (m_flushedBytes == 0) toviport::RemoveFile(m_path.c_str());
}

bool LogFileSet::RecoverFromFailedWrite() {
  std::string carried;
  carried.swap(m_batch);
  const uint64_t carriedRecords = m_batchRecords;
  const bool sizeLimit = m_writeError == EFBIG;
  // What the failed file holds is whole and is archived like any other.
  const std::string closed = m_flushedBytes > 0 ? CurrentName() : "";
  Abandon();
  if (!closed.empty()) m_archive.ArchiveInBackground(closed);
  m_failed = false;
  m_batchRecords = 0;
  // A file-size limit leaves room in a new file at once; a full disk or an
  // I/O error gets a pause first.
  if (!sizeLimit) m_queue.SetWriterStalled(true);
  if ((sizeLimit || SleepUnlessStopped(kRetryMs)) && OpenUntilStopped()) {
    Write(carried.data(), carried.size());
    m_batchRecords = carriedRecords;
    if (Flush()) return true;
    // Not even a fresh file takes them: count them rather than go round.
    m_batch.clear();
    m_batchRecords = 0;
    m_failed = false;
    m_bytes = m_flushedBytes;
  }
  m_queue.CountDropped(carriedRecords);
  return m_fd >= 0;
}

bool LogFileSet::ReplaceIfRemoved() {
  if (m_fd < 0) return false;
  const int64_t now = toviport::SteadyMs();
  if (now - m_lastLinkCheckMs < kLinkCheckMs) return true;
  m_lastLinkCheckMs = now;
  if (toviport::OpenFileLinks(m_fd) != 0) {
    m_recordsSinceCheck = 0;
    return true;
  }
  // Everything handed to the kernel since the last check may have gone into
  // the removed file; what is still pending goes into the new one.
  const unsigned long long unsure = m_recordsSinceCheck;
  std::string carried;
  carried.swap(m_batch);
  const uint64_t carriedRecords = m_batchRecords;
  toviport::CloseFile(m_fd);
  m_fd = -1;
  if (!OpenUntilStopped()) {
    m_queue.CountDropped(carriedRecords);
    return false;
  }
  char line[160];
  std::snprintf(line, sizeof line,
                "%llu record(s) may be lost: the log file was removed while it was written\n",
                unsure);
  WriteText(line);
  Write(carried.data(), carried.size());
  m_batchRecords = carriedRecords;
  return true;
}
