// EngineRegistry.cpp - registering the one debug engine that takes over a
// process's trace output. From registration on, the manager owns the engine;
// an engine replaced by another goes back to its creator. Trace calls read
// the engine without a lock, so an engine is freed, or handed back, only
// once the calls that may have entered it have left (see CallGate.h).
#include <ace/Guard_T.h>

#include "ToviDebugEngine.h"
#include "ToviDebugMgr.h"
#include "debugmgr/CallGate.h"

bool ToviDebugMgr::RegDebugEngine(ToviDebugEngine* engine) {
  if (engine == nullptr) return false;
  ToviDebugEngine* replaced = nullptr;
  {
    const callgate::Pass pass(this);
    if (!pass) return false;
    ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_RegistryLock);
    if (!guard.locked()) return false;
    replaced = m_pDebugEngine.exchange(engine, std::memory_order_seq_cst);
  }
  // Its creator may free the replaced engine as soon as this returns.
  if (replaced != nullptr && replaced != engine) callgate::WaitForCallsInside();
  return true;
}

bool ToviDebugMgr::UnRegDebugEngine(ToviDebugEngine* engine) {
  {
    const callgate::Pass pass(this);
    if (!pass) return false;
    ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_RegistryLock);
    if (!guard.locked()) return false;
    ToviDebugEngine* registered = engine;
    if (!m_pDebugEngine.compare_exchange_strong(registered, nullptr, std::memory_order_seq_cst)) {
      return false;
    }
  }
  // Out of reach now, but calls that read it before may still run in it.
  // The wait is outside the gate, which this call's own pass would keep
  // from draining, and outside the lock, which calls inside may need. An
  // engine that cannot be waited for is left alive rather than freed.
  if (engine != nullptr && callgate::WaitForCallsInside()) delete engine;
  return true;
}

ToviDebugEngine* ToviDebugMgr::GetDebugEngine() {
  const callgate::Pass pass(this);
  if (!pass) return nullptr;
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_RegistryLock);
  if (!guard.locked()) return nullptr;
  return m_pDebugEngine.load(std::memory_order_relaxed);
}
