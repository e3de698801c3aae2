// FileReader.h - the items of one log file, in file order, each with its
// full time; the file's damage is warned about once, when it ends.
#ifndef TOVI_TOOLS_TOVILOG_FILEREADER_H
#define TOVI_TOOLS_TOVILOG_FILEREADER_H

#include <memory>
#include <string>

#include "DateTracker.h"
#include "FileSet.h"
#include "Item.h"
#include "LineReader.h"

namespace tovilog {

class FileReader {
public:
  enum Status { kItem, kNoData, kEnd };

  // With `follow`, the end of the data is a pause: the file may grow.
  FileReader(const LogFile& file, bool follow);

  bool Opened() const { return lines_ != nullptr; }
  // Opened, and it gave a line or ended without an error.
  bool Readable() const {
    return lines_ != nullptr && (lines_->SourceError().empty() || lines_->LineNumber() > 0);
  }
  const std::string& OpenError() const { return openError_; }
  int OpenErrno() const { return openErrno_; }

  // The next complete item, valid until the next call. An item is complete
  // when the line after it starts; at a pause in following, the item being
  // read is kept back (see TakePending).
  Status Next(const Item*& out);
  // Hands out the item being read; nullptr when there is none.
  const Item* TakePending();
  // From now on the end of the data is the end of the file.
  void StopFollowing() { follow_ = false; }

private:
  void CountBinaryLine();
  const Item* Take(std::string_view line);
  const Item* Begin();
  Item& Pending() { return items_[pendingSlot_]; }
  void StartRecord(std::string_view line, const RecordHead& head);
  void StartEvent(EventKind kind, std::string_view line, int64_t wall);
  void Append(std::string_view line);
  bool InHeader() const;
  void WarnAboutDamage();

  const LogFile& file_;
  bool follow_;
  std::unique_ptr<LineReader> lines_;
  std::string openError_;
  int openErrno_ = 0;
  DateTracker dates_;
  // The item being read, and the one handed out last, which must stay
  // valid until the next call.
  Item items_[2];
  int pendingSlot_ = 0;
  bool hasPending_ = false;
  // The rest of a header line that ran into the line after it.
  std::string carry_;
  std::string carried_;
  bool cutItem_ = false;
  uint64_t binaryLines_ = 0;
  uint64_t firstBinaryLine_ = 0;
  bool warned_ = false;
};

}  // namespace tovilog

#endif
