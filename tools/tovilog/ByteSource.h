// ByteSource.h - the bytes of one log file: a plain file as it stands, an
// archive through zlib.
#ifndef TOVI_TOOLS_TOVILOG_BYTESOURCE_H
#define TOVI_TOOLS_TOVILOG_BYTESOURCE_H

#include <cstddef>
#include <memory>
#include <string>

namespace tovilog {

class ByteSource {
public:
  virtual ~ByteSource() = default;
  // Up to `size` bytes into `buffer`: how many, 0 at the end of the data
  // (for now: a plain file may grow), -1 when the data cannot be read on;
  // Error() says why.
  virtual long Read(char* buffer, std::size_t size) = 0;
  const std::string& Error() const { return error_; }

protected:
  std::string error_;
};

// nullptr with `error` set when the file cannot be opened.
std::unique_ptr<ByteSource> OpenByteSource(const std::string& path, bool compressed,
                                           std::string& error, int& errorNumber);

}  // namespace tovilog

#endif
