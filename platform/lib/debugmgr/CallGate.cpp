// CallGate.cpp - the counts of the calls inside the gate, and the wait for
// them to leave.
//
// Why a call cannot slip past a freer: the call counts itself in and then
// reads the published pointer; the freer unpublishes and then reads the
// counts, all four with sequential consistency. Either the call sees the
// pointer gone and leaves without touching the object, or the freer sees the
// call counted and waits for it.
//
// Why the wait ends while other threads keep calling: the counts come in two
// sets, and a call counts itself in the set that the epoch names. The waiter
// first waits for the set not in use (only calls that read the epoch just
// before the last switch are there), then switches the epoch and waits for
// the set that was in use while new calls count in the other one. Every call
// is in one of the two sets, so both are waited for.
#include "debugmgr/CallGate.h"

#include <cstddef>

#include "ToviDebugMgr.h"
#include "port/ToviPort.h"

namespace callgate {
namespace {

constexpr unsigned kShards = 32;
// Two cache lines: processors fetch adjacent lines in pairs.
constexpr std::size_t kLineBytes = 128;

struct alignas(kLineBytes) Shard {
  std::atomic<long> inside{0};
};

Shard g_counts[2][kShards];
// Read by every call, written once per wait.
alignas(kLineBytes) std::atomic<unsigned> g_epoch{0};
// Written once per new thread and per wait, never by a call.
alignas(kLineBytes) std::atomic<unsigned> g_nextShard{0};
std::atomic<bool> g_waiterBusy{false};

// A call still inside after about ten seconds is stuck rather than slow: a
// full queue holds a call for about a second, and creating an application
// writer takes less. What it may be using is then left alive rather than
// freed under it. The bound is counted in polls: sleeps that run late make
// it longer, never shorter.
constexpr unsigned kPollUs = 100;
constexpr unsigned kDrainPolls = 10 * 1000 * 1000 / kPollUs;

// The thread's shard plus one (zero before its first call), and how many
// calls it is inside, nested ones included.
struct ThreadSlot {
  unsigned shard;
  unsigned depth;
};
thread_local ThreadSlot t_slot __attribute__((tls_model("initial-exec"))) = {0, 0};

bool SetDrained(unsigned epoch) {
  for (const Shard& shard : g_counts[epoch]) {
    if (shard.inside.load(std::memory_order_seq_cst) != 0) return false;
  }
  return true;
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
  if (slot.shard == 0) {
    slot.shard = 1 + g_nextShard.fetch_add(1, std::memory_order_relaxed) % kShards;
  }
  m_counter = &g_counts[g_epoch.load(std::memory_order_relaxed) & 1][slot.shard - 1].inside;
  m_counter->fetch_add(1, std::memory_order_seq_cst);
  ++slot.depth;
  m_admitted =
      manager != nullptr && ToviDebugMgr::m_pInstance.load(std::memory_order_seq_cst) == manager;
}

Pass::~Pass() {
  --t_slot.depth;
  // Release: whoever sees the count drop also sees everything the call did.
  m_counter->fetch_sub(1, std::memory_order_release);
}

bool WaitForCallsInside() {
  // The thread's own call would never leave while it waits here.
  if (t_slot.depth != 0) return false;
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
