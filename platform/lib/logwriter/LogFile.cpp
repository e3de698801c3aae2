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

std::tm LocalTime(int64_t when) {
  std::tm local{};
  const time_t t = static_cast<time_t>(when);
  ACE_OS::localtime_r(&t, &local);
  return local;
}
}  // namespace

bool ToviLogWriter::CreateLogFile() {
  const int64_t now = toviport::CurrentTime();

  toviport::FileStatus status;
  if (!toviport::GetFileStatus(m_strLogPath.c_str(), status)) {
    toviport::MakeDir(m_strLogPath.c_str());
  }

  std::string name;
  int64_t nameTime = now > m_nLastNameTime ? now : m_nLastNameTime + 1;
  for (int attempt = 0; attempt < kNameAttempts; ++attempt, ++nameTime) {
    char buf[256];
    const std::tm local = LocalTime(nameTime);
    toviport::FormatTime(buf, sizeof buf, "%Y%m%d_%H%M%S.log", local);
    m_strCurFile = m_strLogPath + m_strPrefix + buf;
    if (toviport::PathExists((m_strCurFile + ".gz").c_str())) continue;

    const toviport::CreateResult made = toviport::CreateNewFile(m_strCurFile);
    if (made == toviport::CreateResult::Exists) continue;
    if (made == toviport::CreateResult::Failed) return false;
    name = buf;
    break;
  }
  if (name.empty()) return false;

  m_pFile = new (std::nothrow) std::ofstream();
  if (m_pFile != nullptr) {
    m_pFile->clear();
    m_pFile->open(m_strCurFile.c_str(), std::ios::out | std::ios::trunc);
  }
  if (m_pFile == nullptr || !m_pFile->is_open() || !m_pFile->good()) {
    delete m_pFile;
    m_pFile = nullptr;
    // The name was claimed above; leave no empty file behind.
    toviport::RemoveFile(m_strCurFile.c_str());
    return false;
  }
  m_nLastNameTime = nameTime;
  m_pFile->seekp(0);
  if (m_strFirstFile.empty()) m_strFirstFile = m_strPrefix + name;

  TOVIInsertBOM(*m_pFile);
  m_nFileBytes = m_pFile->tellp();
  // The creation line carries the true time, even when the name had to move
  // on to a later second.
  char when[63];
  toviport::FormatTime(when, sizeof when, "time %Y-%m-%d %H:%M:%S", LocalTime(now));
  char line[512];
  ACE_OS::snprintf(line, sizeof line, "File create at %s. Current ospid is %d\n", when,
                static_cast<int>(toviport::CurrentProcessId()));
  WriteString(line);
  WriteString(m_strHeader.c_str());
  m_pFile->flush();
  return true;
}

void ToviLogWriter::CloseLogFile() {
  if (m_pFile == nullptr) return;
  char when[511];
  toviport::FormatTime(when, sizeof when, "%Z %Y-%m-%d %H:%M:%S",
                       LocalTime(toviport::CurrentTime()));
  char line[512];
  ACE_OS::snprintf(line, sizeof line, "File close at %s\n", when);
  WriteString(line);
  m_pFile->flush();
  m_pFile->close();
  delete m_pFile;
  m_pFile = nullptr;
}

bool ToviLogWriter::WriteString(const char* text) {
  if (text == nullptr || m_pFile == nullptr) return false;
  std::size_t n = std::strlen(text);
  if (n > kMaxWrite) n = kMaxWrite;
  m_pFile->write(text, static_cast<std::streamsize>(n));
  if (m_pFile->good()) {
    m_nFileBytes += static_cast<int64_t>(n);
    return true;
  }
  // A failed write (a full disk, say) must not silence every later one.
  m_pFile->clear();
  const std::streamoff at = m_pFile->tellp();
  if (at >= 0) m_nFileBytes = at;
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
