// Output.cpp - writing the buffer to standard output.
#include "Output.h"

#include <unistd.h>

#include <cerrno>

namespace tovilog {

void Output::Flush() {
  std::size_t done = 0;
  while (done < buffer_.size()) {
    const ssize_t n = ::write(STDOUT_FILENO, buffer_.data() + done, buffer_.size() - done);
    if (n < 0 && errno == EINTR) continue;
    // A reader that went away (or a full disk) ends the output, not the run.
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
  buffer_.clear();
}

}  // namespace tovilog
