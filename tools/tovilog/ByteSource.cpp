// ByteSource.cpp - reading plain files with read(2) and archives with
// zlib's inflate, which tells a cut-off archive (the input ends inside the
// compressed stream) from a corrupt one (the stream does not decode).
#include "ByteSource.h"

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>

#include "Warn.h"

namespace tovilog {
namespace {

constexpr std::size_t kCompressedChunk = 256 * 1024;

// Reads of a file, retried when a signal interrupts them.
long ReadFd(int fd, char* buffer, std::size_t size) {
  for (;;) {
    const ssize_t n = ::read(fd, buffer, size);
    if (n >= 0 || errno != EINTR) return static_cast<long>(n);
  }
}

class PlainSource : public ByteSource {
public:
  explicit PlainSource(int fd) : fd_(fd) {}
  ~PlainSource() override { ::close(fd_); }

  long Read(char* buffer, std::size_t size) override {
    const long n = ReadFd(fd_, buffer, size);
    if (n < 0) error_ = "cannot read: " + ErrorText(errno);
    return n;
  }

private:
  int fd_;
};

class GzipSource : public ByteSource {
public:
  explicit GzipSource(int fd) : fd_(fd), input_(new char[kCompressedChunk]) {}
  ~GzipSource() override {
    if (initialised_) inflateEnd(&stream_);
    ::close(fd_);
  }

  long Read(char* buffer, std::size_t size) override {
    if (done_) return error_.empty() ? 0 : -1;
    stream_.next_out = reinterpret_cast<Bytef*>(buffer);
    stream_.avail_out = static_cast<uInt>(size);
    while (stream_.avail_out == size) {
      if (stream_.avail_in == 0 && !FillInput()) break;
      if (!StartMember()) return -1;
      const int rc = inflate(&stream_, Z_NO_FLUSH);
      if (rc == Z_STREAM_END) {
        inMember_ = false;
      } else if (rc != Z_OK && rc != Z_BUF_ERROR) {
        error_ = "the archive is corrupt after " + std::to_string(stream_.total_out) +
                 " bytes of text (" + (stream_.msg != nullptr ? stream_.msg : "bad data") + ")";
        return -1;
      }
    }
    const long produced = static_cast<long>(size - stream_.avail_out);
    if (produced > 0 || !error_.empty()) return produced > 0 ? produced : -1;
    return 0;
  }

private:
  // False at the end of the file; a file that ends inside a compressed
  // stream (or before the first one) was cut off while being written.
  bool FillInput() {
    const long n = ReadFd(fd_, input_.get(), kCompressedChunk);
    if (n < 0) {
      error_ = "cannot read: " + ErrorText(errno);
      return false;
    }
    if (n == 0) {
      if (inMember_) {
        error_ = "the archive is cut off after " + std::to_string(stream_.total_out) +
                 " bytes of text (compression did not finish)";
      }
      done_ = true;
      return false;
    }
    stream_.next_in = reinterpret_cast<Bytef*>(input_.get());
    stream_.avail_in = static_cast<uInt>(n);
    return true;
  }

  // gzip allows several members one after the other; each starts afresh.
  bool StartMember() {
    if (initialised_ && inMember_) return true;
    const int rc = initialised_ ? inflateReset(&stream_) : inflateInit2(&stream_, 16 + MAX_WBITS);
    if (rc != Z_OK) {
      error_ = "cannot decompress: out of memory";
      return false;
    }
    initialised_ = true;
    inMember_ = true;
    return true;
  }

  int fd_;
  std::unique_ptr<char[]> input_;
  z_stream stream_{};
  bool initialised_ = false;
  // Inside a compressed stream; an archive holds at least one.
  bool inMember_ = true;
  bool done_ = false;
};

}  // namespace

std::unique_ptr<ByteSource> OpenByteSource(const std::string& path, bool compressed,
                                           std::string& error, int& errorNumber) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    errorNumber = errno;
    error = "cannot open: " + ErrorText(errno);
    return nullptr;
  }
  if (compressed) return std::make_unique<GzipSource>(fd);
  return std::make_unique<PlainSource>(fd);
}

}  // namespace tovilog
