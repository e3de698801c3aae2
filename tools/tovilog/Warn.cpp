// Warn.cpp - warnings on standard error.
#include "Warn.h"

#include <cstdio>
#include <cstring>

namespace tovilog {

void Warn(const std::string& path, const std::string& what) {
  std::string line = "tovilog: ";
  if (!path.empty()) line += path + ": ";
  line += what + "\n";
  std::fputs(line.c_str(), stderr);
}

std::string ErrorText(int error) { return std::strerror(error); }

}  // namespace tovilog
