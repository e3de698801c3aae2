// MappedFile.cpp - open, allocate, map and lock.
#include "port/MappedFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace toviport {
namespace {
// Maps fd whole and takes its lock; 0 or the errno.
int MapAndLock(int fd, std::size_t size, MappedFile& out) {
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) return errno;
  // Populated now, so that the first stores of the traced threads find
  // their pages in place.
  void* base = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd, 0);
  if (base == MAP_FAILED) return errno;
  out.fd = fd;
  out.base = base;
  out.size = size;
  return 0;
}
}  // namespace

int CreateMappedFile(const std::string& path, std::size_t size, MappedFile& out) {
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return errno;
  int error = ::posix_fallocate(fd, 0, static_cast<off_t>(size));
  if (error == 0) error = MapAndLock(fd, size, out);
  if (error == 0) {
    // A clean page of a shared file mapping faults on its first store (the
    // file system marks it dirty then), a few microseconds that a traced
    // thread would pay once per page. Each page is stored to now instead;
    // a page that writeback cleans later costs that once more.
    const long page = ::sysconf(_SC_PAGESIZE);
    auto* bytes = static_cast<volatile char*>(out.base);
    for (std::size_t at = 0; at < size; at += static_cast<std::size_t>(page)) bytes[at] = 0;
    return 0;
  }
  ::close(fd);
  ::unlink(path.c_str());
  return error;
}

int OpenDeadMappedFile(const std::string& path, MappedFile& out) {
  const int fd = ::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return errno;
  struct stat st;
  int error = ::fstat(fd, &st) == 0 ? 0 : errno;
  if (error == 0 && (!S_ISREG(st.st_mode) || st.st_size <= 0)) error = EINVAL;
  if (error == 0) error = MapAndLock(fd, static_cast<std::size_t>(st.st_size), out);
  if (error == 0) return 0;
  ::close(fd);
  return error;
}

int CreateMemoryMapping(std::size_t size, MappedFile& out) {
  void* base = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE,
                      -1, 0);
  if (base == MAP_FAILED) return errno;
  out.fd = -1;
  out.base = base;
  out.size = size;
  return 0;
}

void CloseMappedFile(MappedFile& file) {
  if (file.base != nullptr) ::munmap(file.base, file.size);
  if (file.fd >= 0) ::close(file.fd);
  file = MappedFile();
}

}  // namespace toviport
