// LineReader.cpp - splitting a file's bytes into lines in one pass over a
// large buffer, so that reading costs little more than the copy.
#include "LineReader.h"

#include <string.h>

#include <cstring>

namespace tovilog {
namespace {

constexpr std::size_t kChunk = 256 * 1024;
// A longer line is handed out in pieces; no line of a log file comes near
// it, so it is damage (or a file that is no log) and memory stays bounded.
constexpr std::size_t kMaxLine = 4 * 1024 * 1024;

}  // namespace

LineReader::LineReader(std::unique_ptr<ByteSource> source)
    : source_(std::move(source)), buffer_(kChunk) {}

LineReader::Status LineReader::Next(std::string_view& line, bool follow) {
  for (;;) {
    const char* base = buffer_.data();
    const void* newline = std::memchr(base + begin_, '\n', end_ - begin_);
    if (newline != nullptr) {
      const std::size_t begin = begin_;
      const std::size_t end = static_cast<const char*>(newline) - base;
      begin_ = end + 1;
      Accept(begin, end, line);
      return kLine;
    }
    if (end_ - begin_ >= kMaxLine) {
      splitLong_ = true;
      const std::size_t begin = begin_;
      begin_ += kMaxLine;
      Accept(begin, begin_, line);
      return kLine;
    }
    const long n = ended_ ? 0 : Refill();
    if (n > 0) continue;
    if (n < 0) ended_ = true;
    if (n == 0 && follow && !ended_) return kNoData;
    if (begin_ == end_) return kEnd;
    // The last line has no end: the file was cut off while it was written,
    // unless the data itself broke off, which is reported as such.
    cutOff_ = cutOff_ || SourceError().empty();
    const std::size_t begin = begin_;
    begin_ = end_;
    Accept(begin, end_, line);
    return kLine;
  }
}

long LineReader::Refill() {
  if (begin_ > 0) {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    nulFrom_ = nulFrom_ > begin_ ? nulFrom_ - begin_ : 0;
    nulTo_ = nulTo_ > begin_ ? nulTo_ - begin_ : 0;
    end_ -= begin_;
    begin_ = 0;
  }
  if (buffer_.size() - end_ < kChunk / 2) buffer_.resize(buffer_.size() * 2);
  const long n = source_->Read(buffer_.data() + end_, buffer_.size() - end_);
  if (n <= 0) return n;
  // A NUL is rare: one search per read finds the range that holds them all.
  const char* data = buffer_.data() + end_;
  const void* first = std::memchr(data, '\0', static_cast<std::size_t>(n));
  if (first != nullptr) {
    const void* last = ::memrchr(data, '\0', static_cast<std::size_t>(n));
    if (nulTo_ <= begin_) nulFrom_ = static_cast<const char*>(first) - buffer_.data();
    nulTo_ = static_cast<const char*>(last) - buffer_.data() + 1;
  }
  end_ += static_cast<std::size_t>(n);
  return n;
}

void LineReader::Accept(std::size_t begin, std::size_t end, std::string_view& line) {
  ++lineNumber_;
  const char* p = buffer_.data() + begin;
  std::size_t n = end - begin;
  if (lineNumber_ == 1 && n >= 3 && std::memcmp(p, "\xEF\xBB\xBF", 3) == 0) {
    p += 3;
    n -= 3;
  }
  if (n > 0 && p[n - 1] == '\r') --n;
  hasNul_ = begin < nulTo_ && end > nulFrom_ && std::memchr(p, '\0', n) != nullptr;
  line = std::string_view(p, n);
}

}  // namespace tovilog
