// EngineSlot.h - the one debug engine that may take over a process's trace
// output.
//
// The slot owns its engine from registration on; an engine replaced by
// another goes back to its creator. Trace calls read the slot without a lock
// (after passing the call gate), so the whole state is one atomic pointer
// and every store to it is sequentially consistent: that is the order in
// which callgate::WaitForCallsInside lets a freer know that no call still
// holds what it took out of reach.
#ifndef TOVI_DEBUGMGR_ENGINESLOT_H
#define TOVI_DEBUGMGR_ENGINESLOT_H

#include <atomic>

#include "ToviDebugEngine.h"

class EngineSlot {
public:
  EngineSlot() = default;
  // Runs once no call is inside: the engine is the slot's to free.
  ~EngineSlot() { delete m_engine.exchange(nullptr, std::memory_order_acq_rel); }
  EngineSlot(const EngineSlot&) = delete;
  EngineSlot& operator=(const EngineSlot&) = delete;

  // Inside a call that passed the gate: the engine, or null.
  ToviDebugEngine* Current() const { return m_engine.load(std::memory_order_seq_cst); }

  // Puts engine in the slot; returns the engine it replaced (null when
  // none). The caller must let the calls inside leave before handing the
  // replaced engine back.
  ToviDebugEngine* Replace(ToviDebugEngine* engine) {
    return m_engine.exchange(engine, std::memory_order_seq_cst);
  }
  // Empties the slot when it holds engine; false when it holds another.
  bool Remove(ToviDebugEngine* engine) {
    return m_engine.compare_exchange_strong(engine, nullptr, std::memory_order_seq_cst);
  }

private:
  std::atomic<ToviDebugEngine*> m_engine{nullptr};
};

#endif
