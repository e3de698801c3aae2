// GzipArchive.cpp - compressing one closed log file into a gzip file beside
// it.
//
// The compressed copy is written under a temporary name and renamed to its
// final name only when complete, so a crash mid-way never leaves a partial
// archive that looks finished; the plain file goes only after the rename.
// The plain file's lock is held throughout: a live writer's open file is
// never taken, and two writers that start together never compress the same
// file at once. A final archive beside its plain file is therefore complete
// (the process died between the rename and the removal): the plain file is
// then removed rather than compressed twice.
#include <memory>
#include <new>
#include <string>

#include <zlib.h>

#include "logwriter/LogArchive.h"
#include "logwriter/LogFileNames.h"
#include "port/ToviPort.h"

namespace {
constexpr unsigned kBufferSize = 65536;
}  // namespace

LogArchive::Outcome LogArchive::Compress(const std::string& name) {
  if (name.empty()) return Outcome::Failed;
  const std::string source = toviport::FullDirPath(m_dir) + name;
  int fd = -1;
  const toviport::LockResult locked = toviport::OpenLocked(source, fd);
  if (locked == toviport::LockResult::Busy) return Outcome::Busy;
  if (locked != toviport::LockResult::Locked) return Outcome::Failed;
  const std::string target = source + logfilenames::kArchiveSuffix;
  toviport::FileStatus status;
  const bool archived = toviport::GetFileStatus(target.c_str(), status) && status.isRegular;
  const bool done = archived || GzipFile(fd, target);
  if (done) toviport::RemoveFile(source.c_str());
  toviport::CloseFile(fd);
  return done ? Outcome::Archived : Outcome::Failed;
}

bool LogArchive::GzipFile(int sourceFd, const std::string& target) const {
  const std::string temporary = target + logfilenames::kTemporarySuffix;
  int outFd = -1;
  toviport::CreateResult made = toviport::CreateNewFile(temporary, outFd, nullptr, m_fileMode);
  if (made == toviport::CreateResult::Exists) {
    // Left by a compression that died: whoever compresses holds the plain
    // file's lock, and that is now us.
    toviport::RemoveFile(temporary.c_str());
    made = toviport::CreateNewFile(temporary, outFd, nullptr, m_fileMode);
  }
  if (made != toviport::CreateResult::Created) return false;
  gzFile out = gzdopen(outFd, "wb");
  if (out == nullptr) {
    toviport::CloseFile(outFd);
    toviport::RemoveFile(temporary.c_str());
    return false;
  }

  bool complete = false;
  std::unique_ptr<char[]> buffer(new (std::nothrow) char[kBufferSize]);
  if (buffer != nullptr) {
    for (;;) {
      const long n = toviport::ReadSome(sourceFd, buffer.get(), kBufferSize);
      if (n == 0) {
        complete = true;
        break;
      }
      if (n < 0 || gzwrite(out, buffer.get(), static_cast<unsigned>(n)) != n) break;
    }
  }
  buffer.reset();

  const bool closed = gzclose(out) == Z_OK;
  if (complete && closed && toviport::RenameFile(temporary.c_str(), target.c_str()) == 0) return true;
  toviport::RemoveFile(temporary.c_str());
  return false;
}
