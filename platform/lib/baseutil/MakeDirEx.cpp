// MakeDirEx.cpp - creating a directory with all its missing parents.
//
// The path is data: it is created with the system's own calls and never
// reaches a command processor, so quotes, "$(...)", backticks or ";" in it
// name a directory and run nothing. The length bound of the historical
// command line ("mkdir \"<path>\"" in 1024 bytes) is kept, so a path that
// did not fit there is still refused.
#include <cstring>

#include "ToviBaseUtil.h"
#include "port/ToviPort.h"

namespace {
constexpr std::size_t kCommandBufSize = 1024;
constexpr std::size_t kCommandOverhead = sizeof("mkdir \"\"") - 1;
constexpr std::size_t kMaxPathLen = kCommandBufSize - 1 - kCommandOverhead;
}  // namespace

int ToviMakeDirEx(const char* path) {
  if (path == nullptr || *path == '\0') return -1;
  if (std::strchr(path, '%') != nullptr) return -1;
  if (toviport::PathExists(path)) return 0;

  if (std::strlen(path) <= kMaxPathLen) toviport::MakeDirTree(path);
  // The final existence test is the answer: a concurrent creator's success
  // counts, and a failure of our own is not reported beyond it.
  return toviport::PathExists(path) ? 0 : -1;
}
