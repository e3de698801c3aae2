// LogArchive.cpp - keeping a writer's log directory bounded.
//
// Whenever the writer is about to open a new file it compresses its newest
// plain log file and prunes its oldest compressed ones beyond the limit. A
// writer only ever touches names that start with its own prefix and have the
// exact length of its naming scheme, so writers sharing a directory, and
// anything else kept there, are left alone.
#include "logwriter/LogArchive.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "logwriter/LogFileNames.h"

namespace {
const std::string kTemporaryEnding = std::string(logfilenames::kPlainSuffix) +
                                     logfilenames::kArchiveSuffix + logfilenames::kTemporarySuffix;

bool EndsWith(const std::string& name, const std::string& suffix) {
  return name.size() >= suffix.size() &&
         name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
}
}  // namespace

LogArchive::LogArchive(const std::string& dir, const std::string& prefix, int kept,
                       unsigned fileMode)
    : m_dir(dir), m_prefix(prefix), m_kept(kept), m_fileMode(fileMode) {}

void LogArchive::SpareArchiveOf(const std::string& firstFile) {
  // The key is the name without ".log", so a prefix holding "." works too.
  m_sparedKey = firstFile;
  if (EndsWith(m_sparedKey, logfilenames::kPlainSuffix)) {
    m_sparedKey.resize(m_sparedKey.size() - std::strlen(logfilenames::kPlainSuffix));
  }
}

LogArchive::Kind LogArchive::KindOf(const std::string& name) const {
  // The endings in the order they are told apart, each with the length of
  // the whole name after the prefix.
  struct Shape {
    const char* ending;
    std::size_t length;
    Kind kind;
  };
  static const Shape kShapes[] = {
      {".log", logfilenames::kTimeLength + 4, Kind::PlainLog},
      {".tar.gz", logfilenames::kTimeLength + 7, Kind::TarGz},
      {".tar", logfilenames::kTimeLength + 4, Kind::Tar},
      {".gz", logfilenames::kTimeLength + 7, Kind::CompressedLog},
  };
  if (name.compare(0, m_prefix.size(), m_prefix) != 0) return Kind::Other;
  toviport::FileStatus status;
  if (!toviport::GetFileStatus((m_dir + name).c_str(), status) || !status.isRegular) {
    return Kind::Other;
  }
  for (const Shape& shape : kShapes) {
    if (!EndsWith(name, shape.ending)) continue;
    return name.size() == m_prefix.size() + shape.length ? shape.kind : Kind::Other;
  }
  return Kind::Other;
}

bool LogArchive::IsTemporaryArchive(const std::string& name) const {
  return name.size() == m_prefix.size() + logfilenames::kLongestAddition &&
         name.compare(0, m_prefix.size(), m_prefix) == 0 && EndsWith(name, kTemporaryEnding);
}

void LogArchive::Maintain() {
  std::vector<std::string> names;
  if (!toviport::ListDirectory(m_dir, names)) return;
  // Names carry their creation time, so sorted they run oldest first.
  std::vector<std::string> plain;
  std::vector<std::string> temporaries;
  for (const std::string& name : names) {
    if (KindOf(name) == Kind::PlainLog) plain.push_back(name);
    if (IsTemporaryArchive(name)) temporaries.push_back(name);
  }
  std::sort(plain.rbegin(), plain.rend());
  // The newest plain file that no live writer holds: another instance with
  // the same prefix may be writing the newest one right now.
  for (const std::string& name : plain) {
    if (Compress(name) != Outcome::Busy) break;
  }
  // Archiving that a crash interrupted is finished, whichever file it was:
  // otherwise its records would be read twice, or never archived.
  for (const std::string& name : plain) {
    const std::string archive = m_dir + name + logfilenames::kArchiveSuffix;
    if (toviport::PathExists(archive.c_str()) ||
        toviport::PathExists((archive + logfilenames::kTemporarySuffix).c_str())) {
      Compress(name);
    }
  }
  // A temporary whose plain file is gone is what a compression left when it
  // died; one whose plain file is there is replaced when that file is
  // compressed.
  const std::size_t archiveEnding =
      std::strlen(logfilenames::kArchiveSuffix) + std::strlen(logfilenames::kTemporarySuffix);
  for (const std::string& name : temporaries) {
    const std::string plainName = name.substr(0, name.size() - archiveEnding);
    if (!toviport::PathExists((m_dir + plainName).c_str())) {
      toviport::RemoveFile((m_dir + name).c_str());
    }
  }
  Prune();
}

void LogArchive::Prune() {
  std::vector<std::string> names;
  if (!toviport::ListDirectory(m_dir, names)) return;
  names.erase(std::remove_if(names.begin(), names.end(),
                             [&](const std::string& name) {
                               return KindOf(name) != Kind::CompressedLog;
                             }),
              names.end());
  const std::size_t keep = static_cast<std::size_t>(static_cast<uint32_t>(m_kept));
  if (names.size() <= keep) return;
  std::size_t toRemove = names.size() - keep;

  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    if (toRemove == 0) break;
    if (!m_sparedKey.empty() && name.find(m_sparedKey) != std::string::npos) continue;
    // A removal that fails still counts; the file is tried again next time.
    toviport::RemoveFile((m_dir + name).c_str());
    --toRemove;
  }
}

void LogArchive::ArchiveInBackground(const std::string& closedName) {
  Wait();
  m_job = closedName;
  if (!toviport::StartThread(&LogArchive::Run, this, m_thread)) {
    Run(this);  // no thread to be had: archive here and now
    return;
  }
  m_running = true;
}

void LogArchive::Wait() {
  if (!m_running) return;
  toviport::JoinThread(m_thread);
  m_running = false;
}

void* LogArchive::Run(void* self) {
  LogArchive* archive = static_cast<LogArchive*>(self);
  archive->Compress(archive->m_job);
  archive->Prune();
  return nullptr;
}
