// FileReader.cpp - turning a file's lines into records and file events.
//
// The header given to the writer is arbitrary text, possibly several lines,
// written right after the creation line with no line end of its own. So
// every line after the creation line that is neither a record head nor a
// known file line is header text, shown as one "header" event; a header line
// that ran into the next known line is split where that line starts.
#include "FileReader.h"

#include "LocalTime.h"
#include "Warn.h"

namespace tovilog {
namespace {
// A record with more continuation lines than this is cut, so that a file
// of garbage between two heads cannot take all memory.
constexpr std::size_t kMaxItem = 16 * 1024 * 1024;
constexpr std::string_view kAsnMarker = "ASN Trace:";

bool HasControlCharacter(std::string_view line) {
  for (const char ch : line) {
    const unsigned char c = static_cast<unsigned char>(ch);
    if (c < 0x09 || (c >= 0x0e && c < 0x20 && c != 0x1b)) return true;
  }
  return false;
}
}  // namespace

FileReader::FileReader(const LogFile& file, bool follow)
    : file_(file),
      follow_(follow),
      dates_(file.created != kNoTime ? file.created
                                     : file.lastWrite != kEndOfTime ? file.lastWrite : 0) {
  std::unique_ptr<ByteSource> source =
      OpenByteSource(file.path, file.compressed, openError_, openErrno_);
  if (source != nullptr) lines_ = std::make_unique<LineReader>(std::move(source));
}

FileReader::Status FileReader::Next(const Item*& out) {
  if (lines_ == nullptr) return kEnd;
  for (;;) {
    std::string_view line;
    if (!carry_.empty()) {
      carried_.swap(carry_);
      carry_.clear();
      line = carried_;
    } else {
      const LineReader::Status status = lines_->Next(line, follow_);
      if (status == LineReader::kNoData) return kNoData;
      if (status == LineReader::kEnd) {
        WarnAboutDamage();
        out = TakePending();
        return out != nullptr ? kItem : kEnd;
      }
    }
    if (lines_->LineHasNul()) {
      CountBinaryLine();
      continue;
    }
    out = Take(line);
    if (out != nullptr) return kItem;
  }
}

void FileReader::CountBinaryLine() {
  if (binaryLines_++ == 0) firstBinaryLine_ = lines_->LineNumber();
}

const Item* FileReader::TakePending() {
  if (!hasPending_) return nullptr;
  hasPending_ = false;
  Item* taken = &items_[pendingSlot_];
  // The crash report is a record to the writer and an event to a reader.
  if (taken->isRecord && IsCrashReport(taken->Module(), taken->Message())) {
    taken->isRecord = false;
    taken->event = EventKind::kCrash;
  }
  pendingSlot_ ^= 1;
  return taken;
}

// The item that the line completed, if any.
const Item* FileReader::Take(std::string_view line) {
  RecordHead head;
  if (ParseRecordHead(line, head)) {
    const Item* done = Begin();
    StartRecord(line, head);
    return done;
  }
  EventKind kind;
  int64_t wall;
  if (ParseFileLine(line, kind, wall)) {
    const Item* done = Begin();
    StartEvent(kind, line, wall);
    return done;
  }
  // A record's text is the caller's and may hold anything but a NUL; other
  // lines with control characters other than tab, CR, FF, VT and ESC (for
  // colour) are binary data.
  if (HasControlCharacter(line)) {
    CountBinaryLine();
    return nullptr;
  }
  if (InHeader()) {
    const std::size_t joined = FindJoinedLine(line);
    if (joined != std::string_view::npos && joined > 0) {
      carry_.assign(line.substr(joined));
      line = line.substr(0, joined);
    }
    if (Pending().event == EventKind::kHeader) {
      Append(line);
      return nullptr;
    }
    const Item* done = Begin();
    StartEvent(EventKind::kHeader, line, kNoTime);
    return done;
  }
  if (!hasPending_) {
    StartEvent(EventKind::kStray, line, kNoTime);
    hasPending_ = true;
    return nullptr;
  }
  Append(line);
  return nullptr;
}

const Item* FileReader::Begin() {
  const Item* done = TakePending();
  hasPending_ = true;
  return done;
}

bool FileReader::InHeader() const {
  const Item& pending = items_[pendingSlot_];
  return hasPending_ && !pending.isRecord &&
         (pending.event == EventKind::kCreate || pending.event == EventKind::kHeader);
}

void FileReader::StartRecord(std::string_view line, const RecordHead& head) {
  Item& item = Pending();
  item.isRecord = true;
  item.when = dates_.Place(head.timeOfDay);
  item.text.assign(line).push_back('\n');
  item.file = &file_;
  item.thread = head.thread;
  item.threadEnd = head.threadEnd;
  item.moduleBegin = head.moduleBegin;
  item.moduleEnd = head.moduleEnd;
  item.messageBegin = head.messageBegin;
  item.asnLine = std::string::npos;
  item.level = head.level;
}

void FileReader::StartEvent(EventKind kind, std::string_view line, int64_t wall) {
  if (wall != kNoTime) dates_.Set(wall);
  Item& item = Pending();
  item.isRecord = false;
  item.event = kind;
  item.when = dates_.Last();
  item.text.assign(line).push_back('\n');
  item.file = &file_;
}

void FileReader::Append(std::string_view line) {
  Item& item = Pending();
  if (item.text.size() + line.size() >= kMaxItem) {
    cutItem_ = true;
    return;
  }
  if (item.isRecord && item.asnLine == std::string::npos && line == kAsnMarker) {
    item.asnLine = item.text.size();
  }
  item.text.append(line).push_back('\n');
}

void FileReader::WarnAboutDamage() {
  if (warned_) return;
  warned_ = true;
  const LineReader& lines = *lines_;
  if (!lines.SourceError().empty()) Warn(file_.path, lines.SourceError());
  if (lines.CutOff()) Warn(file_.path, "the last line has no line end (the file was cut off)");
  if (binaryLines_ > 0) {
    Warn(file_.path, "skipped " + std::to_string(binaryLines_) +
                         " line(s) of binary data, the first at line " +
                         std::to_string(firstBinaryLine_));
  }
  if (lines.SplitLongLine()) Warn(file_.path, "a line longer than 4 MiB was split");
  if (cutItem_) Warn(file_.path, "a record longer than 16 MiB was cut");
}

}  // namespace tovilog
