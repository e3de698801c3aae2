// LogLine.h - what one line of a log file is: the head of a record, one of
// the file's own lines (a file event), or neither, which makes it a
// continuation of what came before.
#ifndef TOVI_TOOLS_TOVILOG_LOGLINE_H
#define TOVI_TOOLS_TOVILOG_LOGLINE_H

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tovilog {

enum class EventKind : uint8_t {
  kCreate,         // "File create at time ..."
  kHeader,         // the writer's header text, right after the creation line
  kFirstFile,      // "This is the first log file"
  kThreadHandle,   // "Thread handle output string is 0x..."
  kDate,           // "Current date&time:..."
  kDropped,        // "N record(s) dropped ...", "... may be lost ...", "... not shown ..."
  kThreadExit,     // "thread handle output string exit"
  kStop,           // "... about to clear m_DiscardQueue(N)" and the like
  kClose,          // "File close at ..."
  kWriterMessage,  // "can't get message block" and the like
  kRecovered,      // "N record(s) recovered from process P"
  kCrash,          // the crash report: a "crash" record "Fatal signal ..." and its frames
  kStray,          // lines before anything else in a file that has no head
};

const char* EventName(EventKind kind);

struct RecordHead {
  int64_t timeOfDay = 0;  // microseconds since midnight
  uint32_t thread = 0;
  // Offsets into the line: the thread's hex digits start at 17.
  std::size_t threadEnd = 0;
  std::size_t moduleBegin = 0;
  std::size_t moduleEnd = 0;
  std::size_t messageBegin = 0;
  int level = 0;
};

// "HH:MM:SS.uuuuuu.T<hex> <module> <level prefix><text>".
bool ParseRecordHead(std::string_view line, RecordHead& head);

// Whether a record (its module and its message) is the crash report.
bool IsCrashReport(std::string_view module, std::string_view message);

// One of the file's own lines: its kind, and in `wall` the full date and
// time it carries (kNoTime when it carries none).
bool ParseFileLine(std::string_view line, EventKind& kind, int64_t& wall);

// Where the next line starts inside a header line: a header is written with
// no line end of its own, so one without "\n" runs into the line after it.
// npos when no known line starts in it.
std::size_t FindJoinedLine(std::string_view line);

}  // namespace tovilog

#endif
