// ThreadRole.h - state that belongs to one thread (a writer's, a
// forwarder's), checked in debug builds.
//
// The thread that owns the state claims the role when it starts; every
// function that touches the state asserts that it runs there. A stop
// sequence that takes the state over once the thread has been joined hands
// the role on with Claim. Release builds check nothing and cost nothing;
// debug builds and the sanitizer builds (TOVI_DEBUG_CHECKS) check.
#ifndef TOVI_PORT_THREADROLE_H
#define TOVI_PORT_THREADROLE_H

#include <atomic>
#include <cstdint>
#include <cstdlib>

#include "port/ToviPort.h"

#if !defined(NDEBUG) || defined(TOVI_DEBUG_CHECKS)
#define TOVI_CHECK_THREAD_ROLES 1
#endif

namespace toviport {

class ThreadRole {
public:
  // The calling thread holds the role from now on.
  void Claim() {
#ifdef TOVI_CHECK_THREAD_ROLES
    m_owner.store(CurrentThreadId(), std::memory_order_relaxed);
#endif
  }
  // Debug builds: stops the process when the caller does not hold the role.
  // A role that nobody has claimed yet passes (state touched before the
  // thread starts, in the constructor).
  void AssertHeld() const {
#ifdef TOVI_CHECK_THREAD_ROLES
    const uint32_t owner = m_owner.load(std::memory_order_relaxed);
    if (owner != 0 && owner != CurrentThreadId()) std::abort();
#endif
  }

private:
#ifdef TOVI_CHECK_THREAD_ROLES
  std::atomic<uint32_t> m_owner{0};
#endif
};

}  // namespace toviport

#endif
