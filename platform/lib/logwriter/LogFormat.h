// LogFormat.h - what a log file looks like, written down once for the
// writer that produces it and for tovilog, which reads it back.
//
// A record's first line is
//   HH:MM:SS.uuuuuu.T<thread id, lower-case hex> <sub-module> <prefix><text>
// where the prefix names the level (levels 4 to 31 have none, so a reader
// cannot tell them apart). Between records the writer puts lines of its own:
// the creation and closing lines, the date line, counts of what was lost,
// and the lines of its start and stop. Each such line is kept here as the
// literal text around its variable parts, so that a reader builds its
// patterns from the same characters the writer writes. Header-only, and
// free of the library's other headers: tovilog includes it alone.
#ifndef TOVI_LOGWRITER_LOGFORMAT_H
#define TOVI_LOGWRITER_LOGFORMAT_H

#include <cstddef>
#include <cstdio>
#include <string_view>

namespace logformat {

// ---- Levels -------------------------------------------------------------
// Levels 0 to 3 have a name, a prefix in the file and a syslog severity;
// the rest share kUnnamedSeverity and show no prefix.
constexpr int kNamedLevels = 4;
struct LevelText {
  std::string_view name;
  std::string_view prefix;  // the name and ": "
  int severity;             // RFC 5424
};
constexpr LevelText kLevels[kNamedLevels] = {
    {"ASSERT", "ASSERT: ", 2},  // crit
    {"ERROR", "ERROR: ", 3},    // err
    {"WARN", "WARN: ", 4},      // warning
    {"INFO", "INFO: ", 6},      // info
};
constexpr int kUnnamedSeverity = 7;  // debug

constexpr bool IsNamedLevel(int level) { return level >= 0 && level < kNamedLevels; }
// The prefix a record of level carries in the file; empty for levels 4-31.
constexpr std::string_view LevelPrefix(int level) {
  // Empty, yet pointing somewhere: a copy of no bytes from it stays defined.
  return IsNamedLevel(level) ? kLevels[level].prefix : std::string_view("", 0);
}
constexpr int SyslogSeverity(int level) {
  return IsNamedLevel(level) ? kLevels[level].severity : kUnnamedSeverity;
}

// ---- Time stamps --------------------------------------------------------
// A record is stamped "YYYY-MM-DD HH:MM:SS.uuuuuu" (local time); the file
// line shows the part from the time of day on.
constexpr std::size_t kStampLength = 26;
constexpr std::size_t kStampDayOffset = 8;         // "DD"
constexpr std::size_t kStampTimeOfDayOffset = 11;  // "HH:MM:SS.uuuuuu"
constexpr std::size_t kStampTimeOfDayLength = kStampLength - kStampTimeOfDayOffset;
// After the time of day: ".T" and the thread id.
constexpr std::string_view kThreadMark = ".T";

// ---- The writer's own lines ---------------------------------------------
// "File create at time YYYY-MM-DD HH:MM:SS. Current ospid is <pid>"
constexpr std::string_view kCreateLead = "File create at ";
constexpr char kCreateTimeFormat[] = "time %Y-%m-%d %H:%M:%S";  // strftime
constexpr std::string_view kCreatePid = ". Current ospid is ";
// "File close at <zone> YYYY-MM-DD HH:MM:SS"
constexpr std::string_view kCloseLead = "File close at ";
constexpr char kCloseTimeFormat[] = "%Z %Y-%m-%d %H:%M:%S";  // strftime
// "Current date&time:<stamp>", whenever a record's day differs from the
// last one the process wrote.
constexpr std::string_view kDateLead = "Current date&time:";
constexpr std::string_view kFirstFile = "This is the first log file";
// "Thread handle output string is 0x<writer thread id, hex>"
constexpr std::string_view kThreadHandleLead = "Thread handle output string is 0x";
constexpr std::string_view kThreadExit = "thread handle output string exit";

// "<count><what>": records lost, and why, as the writer writes it (with its
// line end) into out.
inline void CountLine(char* out, std::size_t size, unsigned long long count,
                      std::string_view what) {
  std::snprintf(out, size, "%llu%.*s\n", count, static_cast<int>(what.size()), what.data());
}
constexpr std::string_view kDroppedUnwritable =
    " record(s) dropped while the log file could not be written";
constexpr std::string_view kLostRemoved =
    " record(s) may be lost: the log file was removed while it was written";
constexpr std::string_view kNotShown =
    " record(s) not shown on the console: it did not take them in time";

// The stop sequence: "<stamp><text>(<count>)" for the two clearing lines,
// "<stamp><text>" for the last.
constexpr std::string_view kStopClearHeldBack = " about to clear m_DiscardQueue";
constexpr std::string_view kStopClearOutput = " about to clear m_OutputQueue";
constexpr std::string_view kStopCleared = " after m_OutputQueue cleared";

// The crash report: one record of sub-module kCrashSubModule at ASSERT
// level, written for the first thread that faults:
//   "Fatal signal SIGSEGV (code 1, address 0x10) in thread 0x1a2b of process 1234"
// and a line per frame of that thread, innermost first:
//   "#<n> 0x<pc> <module>+0x<offset>[ <function>][ <file>:<line>]"
constexpr std::string_view kCrashSubModule = "crash";
constexpr std::string_view kCrashLead = "Fatal signal ";
constexpr std::string_view kFrameLead = "#";

// "<count><lead><pid>": the records a writer of the same prefix accepted
// and had not written when its process died, written by the next start
// after this line, in the order they were accepted.
constexpr std::string_view kRecoveredLead = " record(s) recovered from process ";

// Faults of the writer's own machinery.
constexpr std::string_view kNoMessageBlock = "can't get message block";
constexpr std::string_view kNoOutputData = "can't get output data";
constexpr std::string_view kHeldBackClearFailed = "dequeue from m_DiscardQueue fail.";
constexpr std::string_view kOutputClearFailed = "dequeue from m_OutputQueue fail.";

}  // namespace logformat

#endif
