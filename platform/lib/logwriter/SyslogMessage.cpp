// SyslogMessage.cpp - formatting records as RFC 5424 messages.
#include "logwriter/SyslogMessage.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include "logwriter/TimeStamp.h"
#include "logwriter/ToviLogRecord.h"
#include "port/ToviPort.h"

namespace syslogmessage {
namespace {

constexpr std::size_t kMaxMsgId = 32;
const char kCutMark[] = "[cut]";

int Severity(ToviLogLevel level) {
  switch (level) {
    case LEVEL_ASSERT: return 2;
    case LEVEL_ERROR: return 3;
    case LEVEL_WARN: return 4;
    case LEVEL_INFO: return 6;
    default: return 7;
  }
}

std::size_t PrefixLength(ToviLogLevel level) {
  switch (level) {
    case LEVEL_ASSERT: return 8;  // "ASSERT: "
    case LEVEL_ERROR: return 7;
    case LEVEL_WARN:
    case LEVEL_INFO: return 6;
    default: return 0;
  }
}

std::string LevelName(ToviLogLevel level) {
  switch (level) {
    case LEVEL_ASSERT: return "ASSERT";
    case LEVEL_ERROR: return "ERROR";
    case LEVEL_WARN: return "WARN";
    case LEVEL_INFO: return "INFO";
    default: return std::to_string(static_cast<int>(level));
  }
}

const std::string& HostName() {
  static const std::string name = [] {
    std::string host = toviport::HostName();
    return host.empty() ? std::string("-") : host;
  }();
  return name;
}

// "+HH:MM" of the local zone now; asked again only when the second changes.
const char* ZoneOffset() {
  thread_local time_t second = -1;
  thread_local char text[16] = "+00:00";
  const time_t now = std::time(nullptr);
  if (now == second) return text;
  second = now;
  std::tm local{};
  localtime_r(&now, &local);
  const long offset = local.tm_gmtoff;
  const int minutes = static_cast<int>((offset < 0 ? -offset : offset) / 60 % (24 * 60));
  std::snprintf(text, sizeof text, "%c%02d:%02d", offset < 0 ? '-' : '+', minutes / 60,
                minutes % 60);
  return text;
}

// Header fields allow printable ASCII without blanks only.
void AppendField(const char* text, std::size_t length, std::size_t max, std::string& out) {
  if (length == 0) {
    out += '-';
    return;
  }
  for (std::size_t i = 0; i < length && i < max; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    out += c > 32 && c < 127 ? static_cast<char>(c) : '_';
  }
}

void AppendHead(const char* stamp, const std::string& appName, int facility, ToviLogLevel level,
                const char* msgId, std::size_t msgIdLength, uint32_t thread, std::string& out) {
  char head[96];
  // "YYYY-MM-DD HH:MM:SS.uuuuuu" becomes "YYYY-MM-DDTHH:MM:SS.uuuuuu+HH:MM".
  std::snprintf(head, sizeof head, "<%d>1 %.10sT%.15s%s ", facility * 8 + Severity(level), stamp,
                stamp + 11, ZoneOffset());
  out += head;
  out += HostName();
  out += ' ';
  AppendField(appName.data(), appName.size(), 48, out);
  out += ' ';
  out += std::to_string(toviport::CurrentProcessId());
  out += ' ';
  AppendField(msgId, msgIdLength, kMaxMsgId, out);
  std::snprintf(head, sizeof head, " [tovi@32473 thread=\"%x\" level=\"%s\"] ", thread,
                LevelName(level).c_str());
  out += head;
}

void CutToLimit(std::size_t start, std::string& out) {
  if (out.size() - start <= kMaxMessage) return;
  out.resize(start + kMaxMessage - (sizeof kCutMark - 1));
  out += kCutMark;
}

}  // namespace

int FacilityCode(const std::string& name) {
  if (name == "user") return 1;
  if (name.size() == 6 && name.compare(0, 5, "local") == 0 && name[5] >= '0' && name[5] <= '7') {
    return 16 + (name[5] - '0');
  }
  return -1;
}

void Append(const ToviLogRecord& record, const std::string& asn, const std::string& appName,
            int facility, std::string& out) {
  const std::size_t start = out.size();
  const char* text = record.m_pText != nullptr ? record.m_pText : "";
  const std::size_t textLen = record.m_pText != nullptr ? record.m_nTextLen : 0;
  AppendHead(record.m_pTime, appName, facility, record.m_nLevel, text, record.m_nSubModuleLen,
             record.m_nThreadId, out);
  const std::size_t skip = record.m_nSubModuleLen + 1 + PrefixLength(record.m_nLevel);
  if (skip < textLen) out.append(text + skip, textLen - skip);
  if (!asn.empty()) {
    if (out.back() != '\n') out += '\n';
    out.append(asn, 0, asn.size() - (asn.back() == '\n' ? 1 : 0));
  } else if (out.back() == '\n') {
    out.pop_back();
  }
  CutToLimit(start, out);
}

void AppendNotice(const std::string& appName, int facility, ToviLogLevel level,
                  const std::string& text, std::string& out) {
  char stamp[timestamp::kLength + 1];
  timestamp::FormatNow(stamp);
  const std::size_t start = out.size();
  AppendHead(stamp, appName, facility, level, "syslog", 6, toviport::CurrentThreadId(), out);
  out += text;
  CutToLimit(start, out);
}

}  // namespace syslogmessage
