// EngineRegistry.cpp - registering the one debug engine that takes over a
// process's trace output. From registration on, the manager owns the engine;
// an engine replaced by another goes back to its creator.
#include <ace/Guard_T.h>

#include "ToviDebugEngine.h"
#include "ToviDebugMgr.h"
#include "debugmgr/CallGate.h"

bool ToviDebugMgr::RegDebugEngine(ToviDebugEngine* engine) {
  if (engine == nullptr) return false;
  const callgate::Pass pass(this);
  if (!pass) return false;
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_RegistryLock);
  if (!guard.locked()) return false;
  m_pDebugEngine.store(engine, std::memory_order_release);
  return true;
}

bool ToviDebugMgr::UnRegDebugEngine(ToviDebugEngine* engine) {
  const callgate::Pass pass(this);
  if (!pass) return false;
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_RegistryLock);
  if (!guard.locked()) return false;
  if (engine != m_pDebugEngine.load(std::memory_order_relaxed)) return false;
  delete engine;
  m_pDebugEngine.store(nullptr, std::memory_order_release);
  return true;
}

ToviDebugEngine* ToviDebugMgr::GetDebugEngine() {
  const callgate::Pass pass(this);
  if (!pass) return nullptr;
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_RegistryLock);
  if (!guard.locked()) return nullptr;
  return m_pDebugEngine.load(std::memory_order_relaxed);
}
