// RegistryCalls.cpp - the manager's calls that change or read the
// sub-modules' masks, the Printf defaults and the debug engine. Each passes
// the call gate, then leaves the work to the part that holds the state.
#include "ToviDebugEngine.h"
#include "ToviDebugMgr.h"
#include "debugmgr/CallGate.h"
#include "debugmgr/EngineSlot.h"
#include "debugmgr/PrintfDefaults.h"
#include "debugmgr/SubModuleRegistry.h"

namespace {
bool ValidBit(int n) { return n >= 0 && n <= 31; }
}  // namespace

void ToviDebugMgr::SetDefLogLevel(ToviLogLevel level) {
  const callgate::Pass pass(this);
  if (pass) m_pDefaults->SetLevel(level);
}

void ToviDebugMgr::SetDefSubModuleName(const std::string& name) {
  const callgate::Pass pass(this);
  if (pass) m_pDefaults->SetSubModule(name);
}

bool ToviDebugMgr::RegSubModuleInfo(const std::string& name, const std::bitset<32>& level,
                                    const std::bitset<32>& output, bool bUseDebugDefault) {
  const callgate::Pass pass(this);
  return pass && m_bInit.load(std::memory_order_acquire) &&
         m_pRegistry->Register(name, level, output, bUseDebugDefault);
}

bool ToviDebugMgr::GetSubModuleInfo(const std::string& name, std::bitset<32>& level,
                                    std::bitset<32>& output) {
  const callgate::Pass pass(this);
  return pass && m_pRegistry->Get(name, level, output);
}

bool ToviDebugMgr::SetLogLevel(const std::string& name, ToviLogLevel level, bool on) {
  if (!ValidBit(level)) return false;
  const callgate::Pass pass(this);
  return pass && m_pRegistry->SetLevelBit(name, static_cast<unsigned>(level), on);
}

bool ToviDebugMgr::SetLogOutput(const std::string& name, ToviOutputDirection direction, bool on) {
  if (!ValidBit(direction)) return false;
  const callgate::Pass pass(this);
  return pass && m_pRegistry->SetOutputBit(name, static_cast<unsigned>(direction), on);
}

bool ToviDebugMgr::GetAllModuleInfo(ToviModuleMasks& items) {
  const callgate::Pass pass(this);
  return pass && m_bInit.load(std::memory_order_acquire) && m_pRegistry->GetAll(items);
}

bool ToviDebugMgr::SetAllModuleInfo(const std::bitset<32>& level, const std::bitset<32>& output,
                                    bool bUseDebugDefault) {
  const callgate::Pass pass(this);
  return pass && m_bInit.load(std::memory_order_acquire) &&
         m_pRegistry->SetAll(level, output, bUseDebugDefault);
}

bool ToviDebugMgr::RegDebugEngine(ToviDebugEngine* engine) {
  if (engine == nullptr) return false;
  ToviDebugEngine* replaced = nullptr;
  {
    const callgate::Pass pass(this);
    if (!pass) return false;
    replaced = m_pEngine->Replace(engine);
  }
  // Its creator may free the replaced engine as soon as this returns.
  if (replaced != nullptr && replaced != engine) callgate::WaitForCallsInside();
  return true;
}

bool ToviDebugMgr::UnRegDebugEngine(ToviDebugEngine* engine) {
  {
    const callgate::Pass pass(this);
    if (!pass || !m_pEngine->Remove(engine)) return false;
  }
  // Out of reach now, but calls that read it before may still run in it.
  // The wait is outside the gate, which this call's own pass would keep
  // from draining. An engine that cannot be waited for is left alive rather
  // than freed.
  if (engine != nullptr && callgate::WaitForCallsInside()) delete engine;
  return true;
}

ToviDebugEngine* ToviDebugMgr::GetDebugEngine() {
  const callgate::Pass pass(this);
  return pass ? m_pEngine->Current() : nullptr;
}
