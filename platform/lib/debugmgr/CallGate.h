// CallGate.h - keeps the manager, its writers and its engine alive while
// calls run in them.
//
// Any thread may hold a manager pointer and call it while another destroys
// the manager or unregisters its engine. Every public call that touches the
// manager passes the gate first: it counts itself in, then checks that the
// manager it was called on is still the published one, so a call on a
// destroyed manager is refused before it reads anything of it. Whoever frees
// the manager or an engine first takes it out of reach, then waits until the
// calls already inside have left.
//
// The counts live outside the manager, in a record per thread that only
// that thread writes, so tracing threads neither share a cache line nor
// need a locked instruction to count themselves in and out. A record
// outlives its thread and goes to the next new one.
#ifndef TOVI_DEBUGMGR_CALLGATE_H
#define TOVI_DEBUGMGR_CALLGATE_H

#include <atomic>

class ToviDebugMgr;

namespace callgate {

// One call's passage, from construction to destruction. Admitted only when
// the manager is the published instance; a refused pass must not touch the
// manager. The manager pointer is compared, never read through: a stale
// pointer that a newer manager's address happens to match reaches that
// manager, which is alive.
class Pass {
public:
  explicit Pass(const ToviDebugMgr* manager);
  ~Pass();
  Pass(const Pass&) = delete;
  Pass& operator=(const Pass&) = delete;

  explicit operator bool() const { return m_admitted; }

private:
  std::atomic<long>* m_counter;
  bool m_admitted;
};

// Returns once every call that had passed the gate when this was called has
// left it. What the caller took out of reach beforehand (with a store of
// sequential consistency) may then be freed. False when that cannot be
// known: the calling thread is itself inside a call, or a call stayed inside
// for longer than the bound (see CallGate.cpp); the caller must then leave
// the object alive.
bool WaitForCallsInside();

}  // namespace callgate

#endif
