// ConfigKeys.h - the debug configuration's keys, each with its default and
// the range it must fall in, written down once for the reader of the file
// (DebugConfig.cpp) and for Init, which applies the ranges.
#ifndef TOVI_DEBUGMGR_CONFIGKEYS_H
#define TOVI_DEBUGMGR_CONFIGKEYS_H

namespace configkeys {

// A number: the fallback is used when the key is absent, and when its value
// falls outside [low, high].
struct NumberKey {
  const char* name;
  int low;
  int high;
  int fallback;
};

constexpr NumberKey kFiltLogBufSize{"nFiltLogBufSize", 0, 1000, 100};
constexpr NumberKey kMaxFileNum{"nMaxFileNum", 0, 100, 50};
// Written in MiB, held in bytes.
constexpr NumberKey kEachFileMaxSize{"nEachFileMaxSize", 1048576, 52428800, 5242880};
constexpr NumberKey kEachProcessMaxZipNum{"nEachProcessMaxZipNum", 1, 50, 10};
constexpr NumberKey kZipFileIncludeFileNum{"nZipFileIncludeFileNum", 1, 50, 10};
// 1: a fatal signal leaves a crash report in the main log; 0: the process
// dies as it would without the library.
constexpr NumberKey kCrashHandler{"crash_handler", 0, 1, 1};
// Seconds between looks at the debug file for changed sub-module masks
// while the process runs; 0: never.
constexpr NumberKey kConfigReloadSec{"nConfigReloadSec", 0, 3600, 2};
// Octal modes of log files and archives, and of the log directories the
// library makes (defaults in logwriter/LogFileNames.h).
constexpr char kLogFileMode[] = "log_file_mode";
constexpr char kLogDirMode[] = "log_dir_mode";

constexpr int InRangeOrFallback(int value, const NumberKey& key) {
  return value < key.low || value > key.high ? key.fallback : value;
}

// The sub-module whose masks are the defaults of the others; its masks are
// read from "<name>_level" and "<name>_output" as any other's are.
constexpr char kDefaultSubModule[] = "debug";
constexpr char kLevelSuffix[] = "_level";
constexpr char kOutputSuffix[] = "_output";

// Masks for entries whose value is missing or unreadable.
constexpr char kLevelDefault[] = "1100";
constexpr char kDefaultModuleOutput[] = "0100";
constexpr char kOutputDefault[] = "1100";

}  // namespace configkeys

#endif
