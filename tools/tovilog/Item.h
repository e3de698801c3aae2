// Item.h - one thing read from a log file: a record with its continuation
// lines, or a file event (one of the file's own lines, or the header).
#ifndef TOVI_TOOLS_TOVILOG_ITEM_H
#define TOVI_TOOLS_TOVILOG_ITEM_H

#include <cstdint>
#include <string>
#include <string_view>

#include "FileSet.h"
#include "LogLine.h"

namespace tovilog {

struct Item {
  bool isRecord = false;
  EventKind event = EventKind::kStray;
  int64_t when = 0;  // full wall time
  // The lines as they stand in the file, each with its "\n".
  std::string text;
  const LogFile* file = nullptr;

  // Records only; offsets are into `text`.
  uint32_t thread = 0;
  std::size_t threadEnd = 0;  // the hex digits start at 17
  std::size_t moduleBegin = 0;
  std::size_t moduleEnd = 0;
  std::size_t messageBegin = 0;
  std::size_t asnLine = std::string::npos;  // the "ASN Trace:" line
  int level = 0;

  std::string_view Thread() const { return std::string_view(text).substr(17, threadEnd - 17); }
  std::string_view Module() const {
    return std::string_view(text).substr(moduleBegin, moduleEnd - moduleBegin);
  }
  // The text after the level prefix, with its continuation lines, up to the
  // ASN trace.
  std::string_view Message() const {
    const std::size_t end = asnLine == std::string::npos ? text.size() : asnLine;
    return std::string_view(text).substr(messageBegin, end - messageBegin);
  }
  // The rendered ASN.1 value, without the "ASN Trace:" line.
  std::string_view Asn() const {
    if (asnLine == std::string::npos) return {};
    const std::size_t valueLine = text.find('\n', asnLine);
    return std::string_view(text).substr(valueLine == std::string::npos ? text.size() : valueLine + 1);
  }
};

}  // namespace tovilog

#endif
