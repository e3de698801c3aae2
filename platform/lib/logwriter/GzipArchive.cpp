// GzipArchive.cpp - compressing one closed log file into a gzip file beside
// it. The plain file is removed only when its whole content reached the
// compressed copy; a copy that failed part-way is removed at once, so a
// broken archive never stands in for a good log.
#include <memory>
#include <new>
#include <string>

#include <zlib.h>

#include "logwriter/ToviLogWriter.h"
#include "port/ToviPort.h"

namespace {
constexpr unsigned kBufferSize = 65536;
constexpr unsigned kReadSize = kBufferSize - 1;
}  // namespace

void ToviLogWriter::CompressLogFile(const std::string& name) {
  if (name.empty()) return;
  const std::string dir = toviport::FullDirPath(m_strLogPath);
  const std::string source = dir + name;
  if (GzipFile(source, source + ".gz") == 0) toviport::RemoveFile(source.c_str());
}

int ToviLogWriter::GzipFile(const std::string& source, const std::string& target) {
  gzFile in = gzopen(source.c_str(), "rb");
  if (in == nullptr) return -1;
  gzFile out = gzopen(target.c_str(), "wb");
  if (out == nullptr) {
    gzclose(in);
    return -1;
  }

  bool complete = false;
  std::unique_ptr<char[]> buffer(new (std::nothrow) char[kBufferSize]());
  if (buffer != nullptr) {
    for (;;) {
      const int n = gzread(in, buffer.get(), kReadSize);
      if (n == 0) {
        complete = true;
        break;
      }
      if (n < 0 || gzwrite(out, buffer.get(), static_cast<unsigned>(n)) != n) break;
    }
  }
  buffer.reset();

  const bool closed = gzclose(out) == Z_OK;
  gzclose(in);
  if (complete && closed) return 0;
  toviport::RemoveFile(target.c_str());
  return -1;
}
