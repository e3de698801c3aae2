// CallGate.cpp - the counts of the calls inside the gate, and the wait for
// them to leave.
//
// Every thread counts in a record of its own that no other thread writes,
// so a call counts itself in and out with plain loads and stores: no locked
// instruction, and no cache line shared with another tracing thread.
//
// Why a call cannot slip past a freer: the call stores its count and then
// reads the published pointer; the freer unpublishes and then reads the
// counts. Left alone, each processor could let its load pass its own store,
// and each side would miss the other's. So the freer, between unpublishing
// and reading, puts a full barrier into every thread of the process
// (port/Membarrier.h). In each calling thread that barrier falls either
// after the call's count, which the freer then sees, or before it, and so
// before the call's read of the pointer, which then sees it gone. The
// call's compiler barrier keeps the compiler from swapping its store and
// its load, which no processor barrier could undo. Where the system has no
// such barrier, or under ThreadSanitizer, which cannot see it, a call
// counts in with a read-modify-write instead, and the count, the pointer's
// store and both loads are all sequentially consistent. Either way, the
// call sees the pointer gone and leaves without touching the object, or the
// freer sees the call counted and waits for it.
//
// A call counts itself out with a release store: the freer, reading the
// count back at zero, also sees everything the call did.
//
// Records never leave the list, and a thread counts only in a record that
// is on it: one it pushed before its first count, or one that an exited
// thread left free. The freer walks the list after the barrier, so it finds
// every record that a call it must wait for counts in.
//
// Why the wait ends while other threads keep calling: the counts come in two
// sets, and a call counts itself in the set that the epoch names. The waiter
// first waits for the set not in use (only calls that read the epoch just
// before the last switch are there), then switches the epoch and waits for
// the set that was in use while new calls count in the other one. Every call
// is in one of the two sets, so both are waited for.
#include "debugmgr/CallGate.h"

#include <cstddef>
#include <new>

#include "ToviDebugMgr.h"
#include "port/Membarrier.h"
#include "port/ToviPort.h"

// ThreadSanitizer cannot see the barrier the freer puts into the calling
// threads, so it could not check the order the calls rely on; under it they
// count with the read-modify-writes it understands.
#if defined(__SANITIZE_THREAD__)
#define TOVI_GATE_BARRIER 0
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TOVI_GATE_BARRIER 0
#endif
#endif
#ifndef TOVI_GATE_BARRIER
#define TOVI_GATE_BARRIER 1
#endif

namespace callgate {
namespace {

// Two cache lines: processors fetch adjacent lines in pairs.
constexpr std::size_t kLineBytes = 128;

// One thread's counts of the calls it is inside, one per epoch. Only the
// thread holding the record writes them; free hands the record from a
// thread that exited to the next new one, so there are never more records
// than there were threads at once.
struct alignas(kLineBytes) Record {
  std::atomic<long> inside[2]{{0}, {0}};
  std::atomic<bool> free{false};
  Record* next = nullptr;  // set before the record is pushed, never after
};

// Every record ever made, newest first.
std::atomic<Record*> g_records{nullptr};
// For a thread that memory was too short to give a record of its own: every
// such thread counts in it, so with read-modify-writes.
Record g_shared;
// Read by every call, written once per wait.
alignas(kLineBytes) std::atomic<unsigned> g_epoch{0};
std::atomic<bool> g_waiterBusy{false};

// A call still inside after about ten seconds is stuck rather than slow: a
// full queue holds a call for about a second, and creating an application
// writer takes less. What it may be using is then left alive rather than
// freed under it. The bound is counted in polls: sleeps that run late make
// it longer, never shorter.
constexpr unsigned kPollUs = 100;
constexpr unsigned kDrainPolls = 10 * 1000 * 1000 / kPollUs;

// The thread's record (null before its first call), how many calls it is
// inside, nested ones included, whether it counts with plain stores, and
// whether the thread has run its exit clean-up. An exited thread counts
// with read-modify-writes, which are right in any record, so that only the
// calls off the plain path need to look for the exit.
struct ThreadSlot {
  Record* record;
  unsigned depth;
  bool plain;
  bool exited;
};
thread_local ThreadSlot t_slot __attribute__((tls_model("initial-exec"))) = {};

// Chosen once, before the first count and the first wait, so that every
// call that counts with plain stores meets a freer that puts the barrier in.
bool BarrierCounts() {
  static const bool chosen = TOVI_GATE_BARRIER && toviport::RegisterProcessBarrier();
  return chosen;
}

void GiveBack(ThreadSlot& slot) {
  // Its counts are back at zero: this thread's calls have all left.
  if (slot.record != &g_shared) slot.record->free.store(true, std::memory_order_release);
  slot.record = nullptr;
}

// Hands the record on when the thread exits. A call that a later
// thread-exit destructor makes takes a record again and gives it back as it
// leaves.
struct ExitHook {
  ~ExitHook() {
    ThreadSlot& slot = t_slot;
    slot.exited = true;
    slot.plain = false;
    if (slot.record != nullptr && slot.depth == 0) GiveBack(slot);
  }
  bool armed = false;
};
thread_local ExitHook t_exitHook;

Record* TakeRecord() {
  for (Record* r = g_records.load(std::memory_order_seq_cst); r != nullptr; r = r->next) {
    bool isFree = true;
    if (r->free.load(std::memory_order_relaxed) &&
        r->free.compare_exchange_strong(isFree, false, std::memory_order_acquire)) {
      return r;
    }
  }
  Record* made = new (std::nothrow) Record;
  if (made == nullptr) return nullptr;
  Record* head = g_records.load(std::memory_order_relaxed);
  do {
    made->next = head;
  } while (!g_records.compare_exchange_weak(head, made, std::memory_order_seq_cst,
                                            std::memory_order_relaxed));
  return made;
}

void SetUpThread(ThreadSlot& slot) {
  const bool barrier = BarrierCounts();
  // Registers the hook's destructor, once per thread; after it ran, the
  // thread is exiting and its hook is gone.
  if (!slot.exited) t_exitHook.armed = true;
  slot.record = TakeRecord();
  slot.plain = barrier && slot.record != nullptr && !slot.exited;
  if (slot.record == nullptr) slot.record = &g_shared;
}

inline void CountIn(ThreadSlot& slot, const ToviDebugMgr* manager, std::atomic<long>*& counter,
                    bool& admitted) {
  counter = &slot.record->inside[g_epoch.load(std::memory_order_relaxed) & 1];
  if (slot.plain) {
    counter->store(counter->load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
  } else {
    counter->fetch_add(1, std::memory_order_seq_cst);
  }
  ++slot.depth;
  admitted =
      manager != nullptr && ToviDebugMgr::m_pInstance.load(std::memory_order_seq_cst) == manager;
}

// Out of line, so that the first call of a thread costs the others nothing.
__attribute__((noinline)) void SetUpAndCountIn(ThreadSlot& slot, const ToviDebugMgr* manager,
                                               std::atomic<long>*& counter, bool& admitted) {
  SetUpThread(slot);
  CountIn(slot, manager, counter, admitted);
}

bool SetDrained(unsigned epoch) {
  for (const Record* r = g_records.load(std::memory_order_seq_cst); r != nullptr; r = r->next) {
    if (r->inside[epoch].load(std::memory_order_seq_cst) != 0) return false;
  }
  return g_shared.inside[epoch].load(std::memory_order_seq_cst) == 0;
}

// Each wait below spends from the same budget of polls.
bool WaitForSet(unsigned epoch, unsigned& polls) {
  while (!SetDrained(epoch)) {
    if (polls-- == 0) return false;
    toviport::SleepUs(kPollUs);
  }
  return true;
}

// One waiter at a time, or two would switch the epoch under each other.
bool TakeWaiterTurn(unsigned& polls) {
  bool idle = false;
  while (!g_waiterBusy.compare_exchange_weak(idle, true, std::memory_order_acquire)) {
    idle = false;
    if (polls-- == 0) return false;
    toviport::SleepUs(kPollUs);
  }
  return true;
}

}  // namespace

Pass::Pass(const ToviDebugMgr* manager) {
  ThreadSlot& slot = t_slot;
  if (__builtin_expect(slot.record == nullptr, 0)) {
    SetUpAndCountIn(slot, manager, m_counter, m_admitted);
    return;
  }
  CountIn(slot, manager, m_counter, m_admitted);
}

Pass::~Pass() {
  ThreadSlot& slot = t_slot;
  --slot.depth;
  if (slot.plain) {
    m_counter->store(m_counter->load(std::memory_order_relaxed) - 1, std::memory_order_release);
  } else {
    m_counter->fetch_sub(1, std::memory_order_release);
    if (slot.exited && slot.depth == 0) GiveBack(slot);
  }
}

bool WaitForCallsInside() {
  // The thread's own call would never leave while it waits here.
  if (t_slot.depth != 0) return false;
  // Without the barrier, a count stored before the unpublishing may still be
  // unseen here: nothing can be known.
  if (BarrierCounts() && !toviport::ProcessBarrier()) return false;
  unsigned polls = kDrainPolls;
  if (!TakeWaiterTurn(polls)) return false;
  const unsigned current = g_epoch.load(std::memory_order_relaxed) & 1;
  bool drained = WaitForSet(current ^ 1, polls);
  if (drained) {
    g_epoch.store(current ^ 1, std::memory_order_relaxed);
    drained = WaitForSet(current, polls);
  }
  g_waiterBusy.store(false, std::memory_order_release);
  return drained;
}

}  // namespace callgate
