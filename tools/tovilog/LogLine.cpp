// LogLine.cpp - telling the lines of a log file apart.
//
// Every line goes through ParseRecordHead, so it checks fixed columns by
// hand; the file's own lines are rare and matched whole by RE2, after a
// look at their first character.
#include "LogLine.h"

#include <memory>
#include <string>
#include <vector>

#include <re2/re2.h>

#include "Level.h"
#include "LocalTime.h"

namespace tovilog {
namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
int Digit(const char* p, int at) { return p[at] - '0'; }
int TwoDigits(const char* p, int at) { return Digit(p, at) * 10 + Digit(p, at + 1); }

// "YYYY-MM-DD HH:MM:SS" and six digits of microseconds or none.
bool ParseStamp(const std::string& stamp, const std::string& micros, int64_t& wall) {
  const char* p = stamp.data();
  const int64_t us = micros.empty() ? 0 : std::stoll(micros);
  return MakeWall(TwoDigits(p, 0) * 100 + TwoDigits(p, 2), TwoDigits(p, 5), TwoDigits(p, 8),
                  TwoDigits(p, 11), TwoDigits(p, 14), TwoDigits(p, 17), us, wall);
}

struct FileLinePattern {
  EventKind kind;
  std::unique_ptr<RE2> re;  // stamped lines capture the date-time and the microseconds
  bool stamped;
};

std::vector<FileLinePattern> BuildPatterns() {
  const std::string stamp = R"((\d{4}-\d\d-\d\d \d\d:\d\d:\d\d))";
  std::vector<FileLinePattern> p;
  auto add = [&p](EventKind kind, const std::string& re, bool stamped) {
    p.push_back({kind, std::make_unique<RE2>(re), stamped});
  };
  add(EventKind::kCreate, "File create at time " + stamp + R"(()\. Current ospid is -?\d+)", true);
  add(EventKind::kClose, "File close at .*?" + stamp + "()", true);
  add(EventKind::kDate, "Current date&time:" + stamp + R"(\.(\d{6}))", true);
  add(EventKind::kStop,
      stamp + R"(\.(\d{6}) (?:about to clear m_(?:Discard|Output)Queue\(-?\d+\)|)"
              R"(after m_OutputQueue cleared))",
      true);
  add(EventKind::kFirstFile, "This is the first log file", false);
  add(EventKind::kThreadHandle, "Thread handle output string is 0x[0-9a-f]+", false);
  add(EventKind::kDropped,
      R"(\d+ record\(s\) (?:dropped while the log file could not be written|)"
      R"(may be lost: the log file was removed while it was written|)"
      R"(not shown on the console: it did not take them in time))",
      false);
  add(EventKind::kThreadExit, "thread handle output string exit", false);
  add(EventKind::kWriterMessage,
      R"(can't get message block(?:'s base)?|can't get output data|)"
      R"(dequeue from m_(?:Discard|Output)Queue fail\.)",
      false);
  return p;
}

}  // namespace

const char* EventName(EventKind kind) {
  static const char* const kNames[] = {"create",      "header", "first-file", "thread-handle",
                                       "date",        "dropped", "thread-exit", "stop",
                                       "close",       "writer-message", "stray"};
  return kNames[static_cast<int>(kind)];
}

bool ParseRecordHead(std::string_view line, RecordHead& head) {
  const char* p = line.data();
  if (line.size() < 19 || p[2] != ':' || p[5] != ':' || p[8] != '.' || p[15] != '.' ||
      p[16] != 'T') {
    return false;
  }
  for (int at : {0, 1, 3, 4, 6, 7, 9, 10, 11, 12, 13, 14}) {
    if (!IsDigit(p[at])) return false;
  }
  const int hour = TwoDigits(p, 0), minute = TwoDigits(p, 3), second = TwoDigits(p, 6);
  if (hour > 23 || minute > 59 || second > 60) return false;
  int64_t micros = 0;
  for (int at = 9; at < 15; ++at) micros = micros * 10 + Digit(p, at);
  head.timeOfDay = ((hour * 60 + minute) * 60 + second) * kMicrosPerSecond + micros;

  // The thread id: one to eight lower-case hex digits, then a blank.
  std::size_t at = 17;
  uint32_t thread = 0;
  for (; at < line.size() && at < 25; ++at) {
    const char c = p[at];
    const int value = IsDigit(c) ? c - '0' : (c >= 'a' && c <= 'f') ? c - 'a' + 10 : -1;
    if (value < 0) break;
    thread = thread << 4 | static_cast<uint32_t>(value);
  }
  if (at == 17 || at >= line.size() || p[at] != ' ') return false;
  head.thread = thread;
  head.threadEnd = at;
  head.moduleBegin = at + 1;
  const std::size_t blank = line.find(' ', head.moduleBegin);
  head.moduleEnd = blank == std::string_view::npos ? line.size() : blank;
  head.messageBegin = head.moduleEnd < line.size() ? head.moduleEnd + 1 : line.size();
  std::size_t prefix = 0;
  head.level = LevelOfText(line.substr(head.messageBegin), prefix);
  head.messageBegin += prefix;
  return true;
}

bool ParseFileLine(std::string_view line, EventKind& kind, int64_t& wall) {
  if (line.empty()) return false;
  const char first = line.front();
  if (!IsDigit(first) && std::string_view("FCTtcd").find(first) == std::string_view::npos) {
    return false;
  }
  const re2::StringPiece text(line.data(), line.size());
  static const std::vector<FileLinePattern> kPatterns = BuildPatterns();
  for (const FileLinePattern& pattern : kPatterns) {
    std::string stamp, micros;
    const bool match = pattern.stamped ? RE2::FullMatch(text, *pattern.re, &stamp, &micros)
                                       : RE2::FullMatch(text, *pattern.re);
    if (!match) continue;
    kind = pattern.kind;
    wall = kNoTime;
    if (pattern.stamped && !ParseStamp(stamp, micros, wall)) wall = kNoTime;
    return true;
  }
  return false;
}

std::size_t FindJoinedLine(std::string_view line) {
  static const RE2 kLineStart(
      R"((This is the first log file|Thread handle output string is 0x|Current date&time:\d|)"
      R"(\d\d:\d\d:\d\d\.\d{6}\.T[0-9a-f]+ |File close at |thread handle output string exit|)"
      R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} a|\d+ record\(s\) (?:dropped|may be|not shown) ))");
  re2::StringPiece found;
  if (!RE2::PartialMatch(re2::StringPiece(line.data(), line.size()), kLineStart, &found)) {
    return std::string_view::npos;
  }
  return static_cast<std::size_t>(found.data() - line.data());
}

}  // namespace tovilog
