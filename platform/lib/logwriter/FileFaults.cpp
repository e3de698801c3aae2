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
// about a second (see RecordQueue.cpp).
#include <cerrno>

#include <ace/OS_NS_stdio.h>

#include "logwriter/ToviLogWriter.h"
#include "port/ToviPort.h"

namespace {
// The pause before another file is tried when none can be created or
// written.
constexpr unsigned kRetryMs = 1000;
// How often the writer asks whether its open file still has a name.
constexpr int64_t kLinkCheckMs = 500;
}  // namespace

bool ToviLogWriter::CreateLogFileUntilStopped() {
  while (!CreateLogFile()) {
    m_bNoFile.store(true, std::memory_order_release);
    if (!SleepUnlessStopped(kRetryMs)) return false;
  }
  m_bNoFile.store(false, std::memory_order_release);
  return true;
}

void ToviLogWriter::ReportDroppedRecords() {
  if (m_nDroppedRecords.load(std::memory_order_relaxed) == 0) return;
  const unsigned long long dropped = m_nDroppedRecords.exchange(0, std::memory_order_relaxed);
  char line[512];
  ACE_OS::snprintf(line, sizeof line,
                   "%llu record(s) dropped while the log file could not be written\n", dropped);
  WriteString(line);
}

void ToviLogWriter::AbandonFile() {
  if (m_nFile < 0) return;
  toviport::CloseFile(m_nFile);
  m_nFile = -1;
  // A file that never received a whole line is only clutter.
  if (m_nFlushedBytes == 0) toviport::RemoveFile(m_strCurFile.c_str());
}

bool ToviLogWriter::RecoverFromFailedWrite() {
  std::string carried;
  carried.swap(m_FileBatch);
  uint64_t carriedRecords = m_nBatchRecords;
  const bool sizeLimit = m_nWriteError == EFBIG;
  // What the failed file holds is whole and is archived like any other.
  const std::string closed = m_nFlushedBytes > 0 ? m_strCurFile.substr(m_strLogPath.size()) : "";
  AbandonFile();
  if (!closed.empty()) ArchiveInBackground(closed);
  m_bFileFailed = false;
  m_nBatchRecords = 0;
  // A file-size limit leaves room in a new file at once; a full disk or an
  // I/O error gets a pause first.
  if (!sizeLimit) m_bNoFile.store(true, std::memory_order_release);
  if ((sizeLimit || SleepUnlessStopped(kRetryMs)) && CreateLogFileUntilStopped()) {
    WriteBytes(carried.data(), carried.size());
    m_nBatchRecords = carriedRecords;
    if (FlushFileBatch()) return true;
    // Not even a fresh file takes them: count them rather than go round.
    m_FileBatch.clear();
    m_nBatchRecords = 0;
    m_bFileFailed = false;
    m_nFileBytes = m_nFlushedBytes;
  }
  m_nDroppedRecords.fetch_add(carriedRecords, std::memory_order_relaxed);
  return m_nFile >= 0;
}

bool ToviLogWriter::ReplaceRemovedFile() {
  if (m_nFile < 0) return false;
  const int64_t now = toviport::SteadyMs();
  if (now - m_nLastLinkCheckMs < kLinkCheckMs) return true;
  m_nLastLinkCheckMs = now;
  if (toviport::OpenFileLinks(m_nFile) != 0) {
    m_nRecordsSinceCheck = 0;
    return true;
  }
  // Everything handed to the kernel since the last check may have gone into
  // the removed file; what is still pending goes into the new one.
  const unsigned long long unsure = m_nRecordsSinceCheck;
  std::string carried;
  carried.swap(m_FileBatch);
  const uint64_t carriedRecords = m_nBatchRecords;
  toviport::CloseFile(m_nFile);
  m_nFile = -1;
  if (!CreateLogFileUntilStopped()) {
    m_nDroppedRecords.fetch_add(carriedRecords, std::memory_order_relaxed);
    return false;
  }
  char line[160];
  ACE_OS::snprintf(line, sizeof line,
                   "%llu record(s) may be lost: the log file was removed while it was written\n",
                   unsure);
  WriteString(line);
  WriteBytes(carried.data(), carried.size());
  m_nBatchRecords = carriedRecords;
  return true;
}
