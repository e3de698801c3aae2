// Membarrier.cpp - the process-wide barrier through Linux's membarrier(2).
#include "port/Membarrier.h"

#include <sys/syscall.h>
#include <unistd.h>

#if defined(__linux__) && defined(SYS_membarrier)
#include <linux/membarrier.h>
#define TOVI_HAVE_MEMBARRIER 1
#endif

namespace toviport {

#ifdef TOVI_HAVE_MEMBARRIER

namespace {
long Membarrier(int command) { return ::syscall(SYS_membarrier, command, 0, 0); }
}  // namespace

bool RegisterProcessBarrier() {
  // The expedited kind interrupts only the processors that run this
  // process's threads, and returns in microseconds; the plain kind waits for
  // a grace period of the whole system, which can take milliseconds.
  const long offered = Membarrier(MEMBARRIER_CMD_QUERY);
  if (offered < 0 || (offered & MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0) return false;
  return Membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) == 0;
}

bool ProcessBarrier() { return Membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0; }

#else

bool RegisterProcessBarrier() { return false; }
bool ProcessBarrier() { return false; }

#endif

}  // namespace toviport
