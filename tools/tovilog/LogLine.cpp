// LogLine.cpp - telling the lines of a log file apart.
//
// Every line goes through ParseRecordHead, so it checks fixed columns by
// hand; the file's own lines are rare and matched whole by RE2, after a
// look at their first character. Their patterns are built from the texts
// the writer writes them with (logwriter/LogFormat.h), never retyped.
#include "LogLine.h"

#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <re2/re2.h>

#include "Level.h"
#include "LocalTime.h"
#include "logwriter/LogFormat.h"

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

// The date and time that the file's own lines carry, captured.
const std::string kStamp = R"((\d{4}-\d\d-\d\d \d\d:\d\d:\d\d))";
const std::string kMicros = R"(\.(\d{6}))";

std::string Quoted(std::string_view text) {
  return RE2::QuoteMeta(re2::StringPiece(text.data(), text.size()));
}

// "(?:a|b|c)" of the texts, each taken literally.
std::string AnyOf(std::initializer_list<std::string_view> texts) {
  std::string out = "(?:";
  for (std::string_view text : texts) out += Quoted(text) + "|";
  out.back() = ')';
  return out;
}

// The pattern of a strftime format: its date and time captured, a zone name
// matched loosely, the rest literally.
std::string StrftimePattern(std::string_view format) {
  constexpr std::string_view kDateTime = "%Y-%m-%d %H:%M:%S";
  constexpr std::string_view kZone = "%Z";
  std::string out;
  for (std::size_t at = 0; at < format.size();) {
    if (format.substr(at, kDateTime.size()) == kDateTime) {
      out += kStamp;
      at += kDateTime.size();
    } else if (format.substr(at, kZone.size()) == kZone) {
      out += ".*?";
      at += kZone.size();
    } else {
      out += Quoted(format.substr(at++, 1));
    }
  }
  return out;
}

struct FileLinePattern {
  EventKind kind;
  std::unique_ptr<RE2> re;  // stamped lines capture the date-time and the microseconds
  bool stamped;
};

std::vector<FileLinePattern> BuildPatterns() {
  using namespace logformat;
  std::vector<FileLinePattern> p;
  auto add = [&p](EventKind kind, const std::string& re, bool stamped) {
    p.push_back({kind, std::make_unique<RE2>(re), stamped});
  };
  add(EventKind::kCreate,
      Quoted(kCreateLead) + StrftimePattern(kCreateTimeFormat) + "()" + Quoted(kCreatePid) + R"(-?\d+)",
      true);
  add(EventKind::kClose, Quoted(kCloseLead) + StrftimePattern(kCloseTimeFormat) + "()", true);
  add(EventKind::kDate, Quoted(kDateLead) + kStamp + kMicros, true);
  add(EventKind::kStop,
      kStamp + kMicros + "(?:" + AnyOf({kStopClearHeldBack, kStopClearOutput}) + R"(\(-?\d+\)|)" +
          Quoted(kStopCleared) + ")",
      true);
  add(EventKind::kFirstFile, Quoted(kFirstFile), false);
  add(EventKind::kThreadHandle, Quoted(kThreadHandleLead) + "[0-9a-f]+", false);
  add(EventKind::kDropped, R"(\d+)" + AnyOf({kDroppedUnwritable, kLostRemoved, kNotShown}), false);
  add(EventKind::kThreadExit, Quoted(kThreadExit), false);
  add(EventKind::kRecovered, R"(\d+)" + Quoted(kRecoveredLead) + R"(\d+)", false);
  add(EventKind::kWriterMessage,
      AnyOf({kNoMessageBlock, kNoOutputData, kHeldBackClearFailed, kOutputClearFailed}), false);
  return p;
}

// The first characters that the file's own lines start with, besides the
// digits of the stamped and counted ones.
std::string FileLineStarts() {
  using namespace logformat;
  std::string starts;
  for (std::string_view text : {kCreateLead, kCloseLead, kDateLead, kFirstFile, kThreadHandleLead,
                                kThreadExit, kNoMessageBlock, kNoOutputData, kHeldBackClearFailed,
                                kOutputClearFailed}) {
    if (starts.find(text[0]) == std::string::npos) starts += text[0];
  }
  return starts;
}

}  // namespace

const char* EventName(EventKind kind) {
  static const char* const kNames[] = {"create",      "header", "first-file", "thread-handle",
                                       "date",        "dropped", "thread-exit", "stop",
                                       "close",       "writer-message", "recovered",
                                       "crash",       "stray"};
  return kNames[static_cast<int>(kind)];
}

bool IsCrashReport(std::string_view module, std::string_view message) {
  return module == logformat::kCrashSubModule &&
         message.substr(0, logformat::kCrashLead.size()) == logformat::kCrashLead;
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
  static const std::string kStarts = FileLineStarts();
  if (!IsDigit(first) && kStarts.find(first) == std::string::npos) return false;
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
  using namespace logformat;
  static const RE2 kLineStart(
      "(" + AnyOf({kFirstFile, kThreadHandleLead, kCloseLead, kThreadExit}) + "|" +
      Quoted(kDateLead) + R"(\d|\d\d:\d\d:\d\d\.\d{6})" + Quoted(kThreadMark) + "[0-9a-f]+ |" +
      kStamp + R"(\.\d{6})" + AnyOf({kStopClearHeldBack, kStopClearOutput, kStopCleared}) + "|" +
      R"(\d+)" + AnyOf({kDroppedUnwritable, kLostRemoved, kNotShown}) + ")");
  re2::StringPiece found;
  if (!RE2::PartialMatch(re2::StringPiece(line.data(), line.size()), kLineStart, &found)) {
    return std::string_view::npos;
  }
  return static_cast<std::size_t>(found.data() - line.data());
}

}  // namespace tovilog
