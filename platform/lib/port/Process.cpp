// Process.cpp - POSIX implementations of the process and console calls.
#include "port/Process.h"

#include <cerrno>
#include <cstdarg>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdio_ext.h>
#include <unistd.h>

#include "port/ClockThread.h"

namespace toviport {

const char* GetEnv(const char* name) {
  if (name == nullptr) return nullptr;
  return std::getenv(name);
}

void BlockPipeSignal() {
  sigset_t pipe;
  ::sigemptyset(&pipe);
  ::sigaddset(&pipe, SIGPIPE);
  ::pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
}

uint32_t CurrentProcessId() { return static_cast<uint32_t>(::getpid()); }

std::string HostName() {
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) != 0) return std::string();
  return name;
}

int RunCommand(const char* command) { return std::system(command); }

int WriteToStream(FILE* file, const char* text) {
  if (file == nullptr || text == nullptr) return EINVAL;
  return std::fputs(text, file) >= 0 ? 0 : errno;
}

int ConsolePrintf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int n = std::vprintf(format, args);
  va_end(args);
  return n;
}

std::size_t ConsoleAtomicWrite() { return PIPE_BUF; }

namespace {
int FdOf(Console console) { return console == Console::kOut ? STDOUT_FILENO : STDERR_FILENO; }
}  // namespace

bool ConsoleWritable(Console console, int64_t deadline) {
  for (;;) {
    const int64_t left = deadline - SteadyMs();
    struct pollfd out {FdOf(console), POLLOUT, 0};
    const int ready = ::poll(&out, 1, left > 0 ? static_cast<int>(left) : 0);
    if (ready < 0 && errno == EINTR) continue;
    return ready > 0 && (out.revents & POLLOUT) != 0;
  }
}

long ConsoleWriteOnce(Console console, const char* text, std::size_t size) {
  const ssize_t n = ::write(FdOf(console), text, size);
  return n >= 0 ? static_cast<long>(n) : -static_cast<long>(errno);
}

bool TryLockStdout() { return ::ftrylockfile(stdout) == 0; }

void UnlockStdout() { ::funlockfile(stdout); }

std::size_t StdoutPending() { return __fpending(stdout); }

void FlushStdoutLocked() { ::fflush_unlocked(stdout); }

}  // namespace toviport
