// LineReader.h - the lines of one file, without their line ends, with what
// was wrong with them counted for the warnings.
#ifndef TOVI_TOOLS_TOVILOG_LINEREADER_H
#define TOVI_TOOLS_TOVILOG_LINEREADER_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ByteSource.h"

namespace tovilog {

class LineReader {
public:
  enum Status { kLine, kNoData, kEnd };

  explicit LineReader(std::unique_ptr<ByteSource> source);

  // The next line, valid until the next call. With `follow`, the end of the
  // data is a pause (kNoData) and a last line without its end waits for it;
  // without, that line is handed out and counted as cut off. A UTF-8
  // byte-order mark before the first line is dropped, and so is a CR before
  // a line end.
  Status Next(std::string_view& line, bool follow);

  // Of the last line: a NUL, which a log file never holds, marks binary data.
  bool LineHasNul() const { return hasNul_; }
  uint64_t LineNumber() const { return lineNumber_; }
  bool CutOff() const { return cutOff_; }
  bool SplitLongLine() const { return splitLong_; }
  // Why the data ended early; empty when it did not.
  const std::string& SourceError() const { return source_->Error(); }

private:
  long Refill();
  void Accept(std::size_t begin, std::size_t end, std::string_view& line);

  std::unique_ptr<ByteSource> source_;
  std::vector<char> buffer_;
  std::size_t begin_ = 0;  // the first byte not yet handed out
  std::size_t end_ = 0;    // the end of the bytes read
  // Every NUL in the buffer lies within [nulFrom_, nulTo_).
  std::size_t nulFrom_ = 0;
  std::size_t nulTo_ = 0;
  uint64_t lineNumber_ = 0;
  bool hasNul_ = false;
  bool ended_ = false;
  bool cutOff_ = false;
  bool splitLong_ = false;
};

}  // namespace tovilog

#endif
