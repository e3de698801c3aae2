// LogFileNames.h - the shapes of the names a writer gives its files.
//
// A writer with prefix P names its files P + "YYYYMMDD_HHMMSS" + ".log",
// compresses them to that + ".gz", and writes the archive under that +
// ".gz.tmp" until it is complete. Whatever tells these names apart or checks
// that they fit the file system starts from here.
#ifndef TOVI_LOGWRITER_LOGFILENAMES_H
#define TOVI_LOGWRITER_LOGFILENAMES_H

#include <cstddef>

namespace logfilenames {

constexpr std::size_t kTimeLength = 15;  // "YYYYMMDD_HHMMSS"
constexpr char kPlainSuffix[] = ".log";
constexpr char kArchiveSuffix[] = ".gz";
constexpr char kTemporarySuffix[] = ".tmp";

// The characters that the longest name adds to the prefix: a temporary
// archive's.
constexpr std::size_t kLongestAddition =
    kTimeLength + sizeof kPlainSuffix + sizeof kArchiveSuffix + sizeof kTemporarySuffix - 3;
static_assert(kLongestAddition == 26, "P + YYYYMMDD_HHMMSS.log.gz.tmp");

// The modes of log files and archives, and of the directories a writer
// makes, unless configured otherwise: readable by the owner's group, by
// nobody else. The umask takes its share on top.
constexpr unsigned kFileMode = 0640;
constexpr unsigned kDirMode = 0750;

}  // namespace logfilenames

#endif
