// Output.h - standard output through one large buffer.
#ifndef TOVI_TOOLS_TOVILOG_OUTPUT_H
#define TOVI_TOOLS_TOVILOG_OUTPUT_H

#include <string>
#include <string_view>

namespace tovilog {

class Output {
public:
  Output() { buffer_.reserve(kFlushAt + 4096); }
  ~Output() { Flush(); }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  void Append(std::string_view text) {
    buffer_.append(text);
    if (buffer_.size() >= kFlushAt) Flush();
  }
  void Flush();

private:
  static constexpr std::size_t kFlushAt = 256 * 1024;
  std::string buffer_;
};

}  // namespace tovilog

#endif
