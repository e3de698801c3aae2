// SyslogMessage.cpp - formatting records as RFC 5424 messages.
#include "forward/SyslogMessage.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "logwriter/LogFormat.h"
#include "logwriter/ToviLogRecord.h"
#include "port/ToviPort.h"

namespace syslogmessage {
namespace {

constexpr std::size_t kMaxMsgId = 32;
const char kCutMark[] = "[cut]";

// The level as the structured data names it: its name, or its number for
// levels that have none.
std::string LevelName(ToviLogLevel level) {
  if (logformat::IsNamedLevel(level)) return std::string(logformat::kLevels[level].name);
  return std::to_string(static_cast<int>(level));
}

// "+HH:MM" of the local zone now; asked again only when the second changes.
const char* ZoneOffset() {
  thread_local time_t second = -1;
  thread_local char text[16] = "+00:00";
  const time_t now = static_cast<time_t>(toviport::CurrentTime());
  if (now == second) return text;
  second = now;
  const std::tm local = toviport::LocalTime(now);
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

void AppendHex(uint32_t value, std::string& out) {
  char digits[8];
  int n = 0;
  do {
    digits[n++] = "0123456789abcdef"[value & 0xF];
    value >>= 4;
  } while (value != 0);
  while (n > 0) out += digits[--n];
}

}  // namespace

int FacilityCode(const std::string& name) {
  if (name == "user") return 1;
  if (name.size() == 6 && name.compare(0, 5, "local") == 0 && name[5] >= '0' && name[5] <= '7') {
    return 16 + (name[5] - '0');
  }
  return -1;
}

std::string Identity(const std::string& appName) {
  std::string host = toviport::HostName();
  std::string out = " ";
  AppendField(host.data(), host.size(), 255, out);
  out += ' ';
  AppendField(appName.data(), appName.size(), 48, out);
  out += ' ' + std::to_string(toviport::CurrentProcessId()) + ' ';
  return out;
}

void AppendFramed(const ToviLogRecord& record, const std::string& asn,
                  const std::string& identity, int facility, std::string& out) {
  // The length goes in front once the message is known; room for it first.
  const std::size_t frame = out.size();
  out.append(5, ' ');
  const std::size_t start = out.size();
  out += '<';
  out += std::to_string(facility * 8 + logformat::SyslogSeverity(record.m_nLevel));
  out += ">1 ";
  // "YYYY-MM-DD HH:MM:SS.uuuuuu" becomes "YYYY-MM-DDTHH:MM:SS.uuuuuu+HH:MM".
  out.append(record.m_pTime, 10);
  out += 'T';
  out.append(record.m_pTime + 11, 15);
  out += ZoneOffset();
  out += identity;
  const char* text = record.m_pText != nullptr ? record.m_pText : "";
  const std::size_t textLen = record.m_pText != nullptr ? record.m_nTextLen : 0;
  AppendField(text, record.m_nSubModuleLen, kMaxMsgId, out);
  out += " [tovi@32473 thread=\"";
  AppendHex(record.m_nThreadId, out);
  out += "\" level=\"";
  out += LevelName(record.m_nLevel);
  out += "\"] ";
  const std::size_t skip = record.m_nSubModuleLen + 1 + logformat::LevelPrefix(record.m_nLevel).size();
  if (skip < textLen) out.append(text + skip, textLen - skip);
  if (!asn.empty()) {
    if (out.back() != '\n') out += '\n';
    out.append(asn, 0, asn.size() - (asn.back() == '\n' ? 1 : 0));
  } else if (out.back() == '\n') {
    out.pop_back();
  }
  if (out.size() - start > kMaxMessage) {
    out.resize(start + kMaxMessage - (sizeof kCutMark - 1));
    out += kCutMark;
  }
  // At most 2048: four digits and the blank, right-aligned in the room.
  char length[8];
  const int digits = std::snprintf(length, sizeof length, "%zu ", out.size() - start);
  out.replace(frame, 5, length, static_cast<std::size_t>(digits));
}

bool NextFrame(const std::string& framed, std::size_t at, std::size_t& begin, std::size_t& length,
               std::size_t& next) {
  const std::size_t blank = framed.find(' ', at);
  if (blank == std::string::npos || blank == at) return false;
  length = std::strtoul(framed.c_str() + at, nullptr, 10);
  begin = blank + 1;
  next = begin + length;
  return next <= framed.size();
}

}  // namespace syslogmessage
