// Files.cpp - POSIX implementations of the file calls.
#include "port/Files.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <ace/OS_NS_dirent.h>

namespace toviport {

bool PathExists(const char* path) {
  if (path == nullptr) return false;
  return ::access(path, F_OK) == 0;
}

static int MakeOneLevel(const std::string& path, unsigned mode) {
  // EEXIST also covers a creator that won the race.
  if (::mkdir(path.c_str(), static_cast<mode_t>(mode)) == 0 || errno == EEXIST) return 0;
  return errno;
}

int MakeDirTree(const char* path, unsigned mode) {
  if (path == nullptr || *path == '\0') return EINVAL;
  const std::string full(path);
  // Each "/" that follows a name ends a parent; doubled and leading slashes
  // name no new level.
  for (std::size_t i = 1; i < full.size(); ++i) {
    if (full[i] != '/' || full[i - 1] == '/') continue;
    if (const int error = MakeOneLevel(full.substr(0, i), mode)) return error;
  }
  if (full.back() != '/') return MakeOneLevel(full, mode);
  return ::access(path, F_OK) == 0 ? 0 : errno;
}

bool GetFileStatus(const char* path, FileStatus& status) {
  if (path == nullptr) return false;
  struct stat st;
  if (::stat(path, &st) != 0) return false;
  status.isRegular = S_ISREG(st.st_mode);
  status.isDirectory = S_ISDIR(st.st_mode);
  status.size = static_cast<int64_t>(st.st_size);
  return true;
}

std::string FullDirPath(const std::string& dir) {
  char resolved[PATH_MAX];
  if (dir.empty() || ::realpath(dir.c_str(), resolved) == nullptr) return dir;
  std::string out(resolved);
  if (out.back() != '/') out += '/';
  return out;
}

// "a/b/" and "a/b" give "a", "a" gives ".", "/a" gives "/"; "." and "/" give
// themselves.
static std::string ParentDir(const std::string& dir) {
  const std::size_t end = dir.find_last_not_of('/');
  if (end == std::string::npos) return "/";
  const std::size_t slash = dir.rfind('/', end);
  if (slash == std::string::npos) return ".";
  const std::size_t keep = dir.find_last_not_of('/', slash);
  return keep == std::string::npos ? "/" : dir.substr(0, keep + 1);
}

long MaxNameLength(const std::string& dir) {
  constexpr long kUsual = 255;
  std::string at = dir.empty() ? std::string(".") : dir;
  for (;;) {
    const long limit = ::pathconf(at.c_str(), _PC_NAME_MAX);
    if (limit > 0) return limit;
    std::string parent = ParentDir(at);
    if (parent == at) return kUsual;
    at.swap(parent);
  }
}

CreateResult CreateNewFile(const std::string& path, int& fd, int* error, unsigned mode) {
  fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
              static_cast<mode_t>(mode));
  if (fd >= 0) return CreateResult::Created;
  if (error != nullptr) *error = errno;
  return errno == EEXIST ? CreateResult::Exists : CreateResult::Failed;
}

int WriteAll(int fd, const char* data, std::size_t size, std::size_t& written) {
  written = 0;
  while (written < size) {
    const ssize_t n = ::write(fd, data + written, size - written);
    if (n > 0) {
      written += static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    return n == 0 ? EIO : errno;
  }
  return 0;
}

void CloseFile(int fd) {
  if (fd >= 0) ::close(fd);
}

LockResult LockOpenFile(int fd) {
  if (::flock(fd, LOCK_EX | LOCK_NB) == 0) return LockResult::Locked;
  return errno == EWOULDBLOCK ? LockResult::Busy : LockResult::Failed;
}

LockResult OpenLocked(const std::string& path, int& fd) {
  fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return LockResult::Failed;
  const LockResult locked = LockOpenFile(fd);
  if (locked == LockResult::Locked) return locked;
  ::close(fd);
  fd = -1;
  return locked;
}

long ReadSome(int fd, char* buffer, std::size_t size) {
  for (;;) {
    const ssize_t n = ::read(fd, buffer, size);
    if (n >= 0) return static_cast<long>(n);
    if (errno != EINTR) return -static_cast<long>(errno);
  }
}

int RenameFile(const char* from, const char* to) { return ::rename(from, to) == 0 ? 0 : errno; }

int CutFile(int fd, int64_t size) {
  if (::ftruncate(fd, static_cast<off_t>(size)) != 0) return errno;
  return ::lseek(fd, static_cast<off_t>(size), SEEK_SET) == static_cast<off_t>(size) ? 0 : errno;
}

int ShortenFile(const std::string& path, int64_t size) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return errno;
  struct stat st;
  int error = ::fstat(fd, &st) == 0 ? 0 : errno;
  if (error == 0 && st.st_size > size && ::ftruncate(fd, static_cast<off_t>(size)) != 0) error = errno;
  ::close(fd);
  return error;
}

bool PathNamesOpenFile(const std::string& path, int fd) {
  struct stat open;
  if (::fstat(fd, &open) != 0) return true;
  struct stat named;
  if (::stat(path.c_str(), &named) != 0) return false;
  return named.st_dev == open.st_dev && named.st_ino == open.st_ino;
}

int StampOf(const std::string& path, FileStamp& stamp) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return errno;
  stamp.device = static_cast<uint64_t>(st.st_dev);
  stamp.inode = static_cast<uint64_t>(st.st_ino);
  stamp.modifiedNs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  stamp.size = static_cast<int64_t>(st.st_size);
  return 0;
}

bool Readable(const std::string& path) { return ::access(path.c_str(), R_OK) == 0; }

int RemoveFile(const char* path) {
  if (path == nullptr) return EINVAL;
  return std::remove(path) == 0 ? 0 : errno;
}

bool OpenTextInput(std::ifstream& in, const std::string& path) {
  // A directory opens as a stream here but fails every read; refuse it up
  // front so that callers see "cannot open" as they would elsewhere.
  FileStatus status;
  if (GetFileStatus(path.c_str(), status) && status.isDirectory) return false;
  in.open(path.c_str(), std::ios::in);
  return in.is_open();
}

bool ListDirectory(const std::string& dir, std::vector<std::string>& names) {
  ACE_DIR* listing = ACE_OS::opendir(dir.c_str());
  if (listing == nullptr) return false;
  while (ACE_DIRENT* entry = ACE_OS::readdir(listing)) {
    const char* name = entry->d_name;
    if (std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0) names.emplace_back(name);
  }
  ACE_OS::closedir(listing);
  return true;
}

}  // namespace toviport
