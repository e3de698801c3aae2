// FileSet.h - which files to read, grouped by writer, each writer's files in
// the order of the time in their names.
#ifndef TOVI_TOOLS_TOVILOG_FILESET_H
#define TOVI_TOOLS_TOVILOG_FILESET_H

#include <cstdint>
#include <string>
#include <vector>

namespace tovilog {

struct LogFile {
  std::string path;
  std::string name;    // without the directory
  std::string prefix;  // the writer's prefix; the whole name when it has none
  int64_t created = 0;  // wall time from the name; kNoTime when the name has none
  int64_t lastWrite = 0;  // wall time of the last modification; kEndOfTime if unknown
  bool compressed = false;
};

struct WriterFiles {
  std::string dir;
  std::string prefix;
  bool named = false;  // false: a single file given by a name of another form
  std::vector<LogFile> files;
};

struct SetProblems {
  int unreadablePaths = 0;
};

// The writers of the given directories (only those of `prefixes` when any
// are given) and of the given files. Paths that cannot be read are warned
// about and counted.
std::vector<WriterFiles> CollectFileSet(const std::vector<std::string>& paths,
                                        const std::vector<std::string>& prefixes,
                                        SetProblems& problems);

// The files of one writer in dir, in order; empty when there are none.
std::vector<LogFile> WriterFilesIn(const std::string& dir, const std::string& prefix);

// Whether a file may hold records between since and until (wall times).
bool MayHoldRecords(const LogFile& file, int64_t since, int64_t until);

}  // namespace tovilog

#endif
