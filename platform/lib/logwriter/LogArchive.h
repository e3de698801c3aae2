// LogArchive.h - a writer's compressed files: compressing a closed log file
// beside it, and keeping only the newest archives.
//
// Compressing a full file takes the better part of a second; done on the
// writer thread it would stop the queue from draining. So each roll-over
// hands the closed file to a thread of its own, at most one per writer: a
// roll-over that comes while the last one still runs waits for it.
#ifndef TOVI_LOGWRITER_LOGARCHIVE_H
#define TOVI_LOGWRITER_LOGARCHIVE_H

#include <string>

#include "port/ToviPort.h"

class LogArchive {
public:
  // dir ends in "/"; kept is how many archives of this prefix stay.
  // fileMode: the mode archives are made with.
  LogArchive(const std::string& dir, const std::string& prefix, int kept, unsigned fileMode);
  ~LogArchive() { Wait(); }
  LogArchive(const LogArchive&) = delete;
  LogArchive& operator=(const LogArchive&) = delete;

  // At start: compresses the newest plain file that no live writer holds,
  // finishes archiving that a crash interrupted, and prunes.
  void Maintain();
  // Compresses a closed file (a name in dir) and prunes, on the archiving
  // thread.
  void ArchiveInBackground(const std::string& closedName);
  // Waits for the archiving thread, if one runs.
  void Wait();
  // The archive of this run's first file is never pruned. Set before the
  // first ArchiveInBackground.
  void SpareArchiveOf(const std::string& firstFile);

  // Busy: a live writer (or another compressor) holds the file.
  enum class Outcome { Archived, Busy, Failed };
  Outcome Compress(const std::string& name);
  // Compresses the open file into target; true when target is complete.
  bool GzipFile(int sourceFd, const std::string& target) const;

private:
  enum class Kind { PlainLog, CompressedLog, Tar, TarGz, Other };
  Kind KindOf(const std::string& name) const;
  bool IsTemporaryArchive(const std::string& name) const;
  void Prune();
  static void* Run(void* self);

  const std::string m_dir;
  const std::string m_prefix;
  const int m_kept;
  const unsigned m_fileMode;
  std::string m_sparedKey;
  // The archiving thread of the last roll-over, while it may still run, and
  // the name of the file it compresses.
  bool m_running = false;
  toviport::ThreadHandle m_thread{};
  std::string m_job;
};

#endif
