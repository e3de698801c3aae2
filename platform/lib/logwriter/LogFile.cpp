// LogFile.cpp - naming, opening and closing a writer's log files.
//
// A file is named by its prefix and the second that created it. A name is
// never used twice: a name that is taken in the directory (by this writer, by
// another process with the same prefix, or by a compressed copy) moves on to
// the next free second, and a writer's names only ascend. Files are created
// exclusively, so an existing file is never truncated.
#include <cstdio>
#include <cstring>
#include <ctime>

#include <ace/OS_NS_stdio.h>
#include <ace/OS_NS_time.h>

#include "ToviBaseUtil.h"
#include "logwriter/ToviLogWriter.h"
#include "port/ToviPort.h"

namespace {
// How many seconds past the wanted one are tried for a free name.
constexpr int kNameAttempts = 3600;
// The most a single write puts into the file.
constexpr std::size_t kMaxWrite = 0x200000;
const char kUtf8Bom[] = "\xEF\xBB\xBF";

std::tm LocalTime(int64_t when) {
  std::tm local{};
  const time_t t = static_cast<time_t>(when);
  ACE_OS::localtime_r(&t, &local);
  return local;
}
}  // namespace

bool ToviLogWriter::CreateLogFile() {
  const int64_t now = toviport::CurrentTime();

  // The whole tree: the directory, or its parents too, may have been removed
  // while the writer ran.
  toviport::MakeDirTree(m_strLogPath.c_str());

  std::string name;
  int fd = -1;
  int64_t nameTime = now > m_nLastNameTime ? now : m_nLastNameTime + 1;
  for (int attempt = 0; attempt < kNameAttempts; ++attempt, ++nameTime) {
    char buf[256];
    const std::tm local = LocalTime(nameTime);
    toviport::FormatTime(buf, sizeof buf, "%Y%m%d_%H%M%S.log", local);
    m_strCurFile = m_strLogPath + m_strPrefix + buf;
    if (toviport::PathExists((m_strCurFile + ".gz").c_str())) continue;

    const toviport::CreateResult made = toviport::CreateNewFile(m_strCurFile, fd);
    if (made == toviport::CreateResult::Exists) continue;
    if (made == toviport::CreateResult::Failed) return false;
    // Held while the file is open: no writer of the same prefix compresses
    // or removes it. Lost only to a writer that took the new file in the
    // moment since its creation to compress it; then the next name is used.
    // A file system without such locks leaves the file unguarded.
    if (toviport::LockOpenFile(fd) == toviport::LockResult::Busy) {
      toviport::CloseFile(fd);
      fd = -1;
      continue;
    }
    name = buf;
    break;
  }
  if (name.empty()) return false;

  m_nFile = fd;
  m_nLastNameTime = nameTime;
  m_nFileBytes = 0;
  m_nFlushedBytes = 0;
  m_nRecordsSinceCheck = 0;
  m_nLastLinkCheckMs = toviport::SteadyMs();
  m_FileBatch.clear();
  m_nBatchRecords = 0;
  m_bFileFailed = false;

  if (TOVIIsGlobalVersion()) WriteString(kUtf8Bom);
  // The creation line carries the true time, even when the name had to move
  // on to a later second.
  char when[63];
  toviport::FormatTime(when, sizeof when, "time %Y-%m-%d %H:%M:%S", LocalTime(now));
  char line[512];
  ACE_OS::snprintf(line, sizeof line, "File create at %s. Current ospid is %d\n", when,
                static_cast<int>(toviport::CurrentProcessId()));
  WriteString(line);
  WriteString(m_strHeader.c_str());
  if (!FlushFileBatch()) {
    // Not even the head fits (a full disk): no headless file stays behind.
    AbandonFile();
    return false;
  }
  if (m_strFirstFile.empty()) m_strFirstFile = m_strPrefix + name;
  return true;
}

void ToviLogWriter::CloseLogFile() {
  if (m_nFile < 0) return;
  char when[511];
  toviport::FormatTime(when, sizeof when, "%Z %Y-%m-%d %H:%M:%S",
                       LocalTime(toviport::CurrentTime()));
  char line[512];
  ACE_OS::snprintf(line, sizeof line, "File close at %s\n", when);
  WriteString(line);
  if (!FlushFileBatch()) {
    // What could not be written now never will be: count its records.
    m_nDroppedRecords.fetch_add(m_nBatchRecords, std::memory_order_relaxed);
    m_FileBatch.clear();
    m_nBatchRecords = 0;
    m_bFileFailed = false;
  }
  toviport::CloseFile(m_nFile);
  m_nFile = -1;
}

bool ToviLogWriter::WriteString(const char* text) {
  if (text == nullptr) return false;
  return WriteBytes(text, std::strlen(text));
}

bool ToviLogWriter::WriteBytes(const char* data, std::size_t n) {
  if (m_nFile < 0) return false;
  if (n > kMaxWrite) n = kMaxWrite;
  try {
    m_FileBatch.append(data, n);
  } catch (...) {
    return false;
  }
  m_nFileBytes += static_cast<int64_t>(n);
  return true;
}

bool ToviLogWriter::FlushFileBatch() {
  if (m_nFile < 0 || m_FileBatch.empty()) return !m_bFileFailed;
  std::size_t written = 0;
  if (toviport::WriteAll(m_nFile, m_FileBatch.data(), m_FileBatch.size(), written)) {
    m_nFlushedBytes += static_cast<int64_t>(written);
    m_nRecordsSinceCheck += m_nBatchRecords;
    m_FileBatch.clear();
    m_nBatchRecords = 0;
    m_bFileFailed = false;
    return true;
  }
  // The batch holds whole records only; cutting back to its start leaves no
  // torn record, and the batch waits for the next file.
  m_nWriteError = errno;
  toviport::CutFile(m_nFile, m_nFlushedBytes);
  m_nFileBytes = m_nFlushedBytes + static_cast<int64_t>(m_FileBatch.size());
  m_bFileFailed = true;
  return false;
}

bool ToviLogWriter::IsLogFileName(const char* name, int kind) const {
  if (name == nullptr) return false;
  const std::size_t n = std::strlen(name);
  const std::size_t prefix = m_strPrefix.size();
  switch (kind) {
    case 1:
    case 2:
      return n == prefix + 19;
    case 0:
    case 3:
      return n == prefix + 22;
    default:
      return false;
  }
}
