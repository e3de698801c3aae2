// ArchiveMaintenance.cpp - keeping a writer's log directory bounded.
//
// Whenever the writer is about to open a new file it compresses its newest
// plain log file and prunes its oldest compressed ones beyond the limit. A
// writer only ever touches names that start with its own prefix and have the
// exact length of its naming scheme, so writers sharing a directory, and
// anything else kept there, are left alone.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <ace/OS_NS_dirent.h>

#include "logwriter/LogFileNames.h"
#include "logwriter/ToviLogWriter.h"
#include "port/ToviPort.h"

namespace {
const std::string kTemporaryEnding = std::string(logfilenames::kPlainSuffix) +
                                     logfilenames::kArchiveSuffix + logfilenames::kTemporarySuffix;

enum FileKind { kTarGz = 0, kPlainLog = 1, kTar = 2, kCompressedLog = 3, kOther = 4 };

bool EndsWith(const char* name, const char* suffix) {
  const std::size_t n = std::strlen(name);
  const std::size_t s = std::strlen(suffix);
  return n >= s && std::memcmp(name + n - s, suffix, s) == 0;
}

// Calls visit with the name of every entry of dir; false when the directory
// cannot be listed.
template <typename Visit>
bool ForEachEntry(const std::string& dir, Visit visit) {
  ACE_DIR* listing = ACE_OS::opendir(dir.c_str());
  if (listing == nullptr) return false;
  while (ACE_DIRENT* entry = ACE_OS::readdir(listing)) visit(entry->d_name);
  ACE_OS::closedir(listing);
  return true;
}
}  // namespace

int ToviLogWriter::GetLogFileType(const char* name) {
  if (name == nullptr) return kOther;
  toviport::FileStatus status;
  if (!toviport::GetFileStatus((m_strLogPath + name).c_str(), status) || !status.isRegular) {
    return kOther;
  }
  if (std::strncmp(name, m_strPrefix.c_str(), m_strPrefix.size()) != 0) return kOther;

  if (EndsWith(name, ".log") && IsLogFileName(name, kPlainLog)) return kPlainLog;
  if (EndsWith(name, ".tar.gz") && IsLogFileName(name, kTarGz)) return kTarGz;
  if (EndsWith(name, ".tar") && IsLogFileName(name, kTar)) return kTar;
  if (EndsWith(name, ".gz") && IsLogFileName(name, kCompressedLog)) return kCompressedLog;
  return kOther;
}

void ToviLogWriter::MaintainArchives() {
  // Names carry their creation time, so sorted they run oldest first.
  std::vector<std::string> plain;
  std::vector<std::string> temporaries;
  const bool listed = ForEachEntry(m_strLogPath, [&](const char* name) {
    if (GetLogFileType(name) == kPlainLog) plain.emplace_back(name);
    if (IsTemporaryArchive(name)) temporaries.emplace_back(name);
  });
  if (!listed) return;
  std::sort(plain.rbegin(), plain.rend());
  // The newest plain file that no live writer holds: another instance with
  // the same prefix may be writing the newest one right now.
  for (const std::string& name : plain) {
    if (CompressLogFile(name) != ArchiveOutcome::Busy) break;
  }
  // Archiving that a crash interrupted is finished, whichever file it was:
  // otherwise its records would be read twice, or never archived.
  for (const std::string& name : plain) {
    const std::string archive = m_strLogPath + name + logfilenames::kArchiveSuffix;
    if (toviport::PathExists(archive.c_str()) ||
        toviport::PathExists((archive + logfilenames::kTemporarySuffix).c_str())) {
      CompressLogFile(name);
    }
  }
  // A temporary whose plain file is gone is what a compression left when it
  // died; one whose plain file is there is replaced when that file is
  // compressed.
  for (const std::string& name : temporaries) {
    const std::size_t archived = name.size() - sizeof logfilenames::kArchiveSuffix -
                                 sizeof logfilenames::kTemporarySuffix + 2;
    if (!toviport::PathExists((m_strLogPath + name.substr(0, archived)).c_str())) {
      toviport::RemoveFile((m_strLogPath + name).c_str());
    }
  }
  RemoveOldZipFiles();
}

bool ToviLogWriter::IsTemporaryArchive(const char* name) const {
  const std::size_t n = std::strlen(name);
  return n == m_strPrefix.size() + logfilenames::kLongestAddition &&
         std::strncmp(name, m_strPrefix.c_str(), m_strPrefix.size()) == 0 &&
         EndsWith(name, kTemporaryEnding.c_str());
}

void ToviLogWriter::RemoveOldZipFiles() {
  std::vector<std::string> names;
  const bool listed = ForEachEntry(m_strLogPath, [&](const char* name) {
    if (GetLogFileType(name) == kCompressedLog) names.emplace_back(name);
  });
  if (!listed) return;

  const std::size_t keep = static_cast<std::size_t>(static_cast<uint32_t>(m_nEachProcessMaxZipNum));
  if (names.size() <= keep) return;
  std::size_t toRemove = names.size() - keep;

  // The compressed copy of this run's first file is spared. Its key is the
  // first file's name without ".log", so a prefix holding "." works too.
  std::string key = m_strFirstFile;
  if (key.size() >= 4 && key.compare(key.size() - 4, 4, ".log") == 0) key.resize(key.size() - 4);

  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    if (toRemove == 0) break;
    if (!key.empty() && name.find(key) != std::string::npos) continue;
    // A removal that fails still counts; the file is tried again next time.
    toviport::RemoveFile((m_strLogPath + name).c_str());
    --toRemove;
  }
}
