// Registry.cpp - the sub-modules with their level and output masks.
//
// Lookups go through the lock-free index, so trace calls of many threads
// look up at once without touching a shared line; every change holds the
// registry lock for writing. An entry, once made, stays until the manager is
// destroyed.
#include <map>
#include <string>

#include <ace/Guard_T.h>

#include "ToviDebugMgr.h"
#include "debugmgr/CallGate.h"
#include "debugmgr/ConfigKeys.h"
#include "debugmgr/SubModuleIndex.h"
#include "debugmgr/SubModuleInfo.h"

namespace {
using configkeys::kDefaultSubModule;

bool ValidBit(int n) { return n >= 0 && n <= 31; }

// The entry that a mask change addresses: name, or "debug" for the empty name.
SubModuleInfo* ChangeTarget(std::map<std::string, SubModuleInfo*>& registry,
                            const std::string& name) {
  auto found = registry.find(name.empty() ? std::string(kDefaultSubModule) : name);
  return found == registry.end() ? nullptr : found->second;
}
}  // namespace

void ToviDebugMgr::SetDefLogLevel(ToviLogLevel level) {
  const callgate::Pass pass(this);
  if (!pass) return;
  m_nDefLogLevel.store(level, std::memory_order_relaxed);
}

void ToviDebugMgr::SetDefSubModuleName(const std::string& name) {
  const callgate::Pass pass(this);
  if (!pass) return;
  ACE_Guard<ACE_Thread_Mutex> guard(m_DefaultsLock);
  try {
    m_strDefSubModuleName = name;
  } catch (...) {
    // No memory for the copy: the old default stays.
  }
}

std::string ToviDebugMgr::DefSubModuleName() {
  ACE_Guard<ACE_Thread_Mutex> guard(m_DefaultsLock);
  return m_strDefSubModuleName;
}

bool ToviDebugMgr::RegSubModuleInfo(const std::string& name, const std::bitset<32>& level,
                                    const std::bitset<32>& output, bool bUseDebugDefault) {
  const callgate::Pass pass(this);
  if (!pass) return false;
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_RegistryLock);
  if (!guard.locked() || !m_bInit.load(std::memory_order_acquire)) return false;
  return RegSubModuleInfo_i(name, level, output, bUseDebugDefault);
}

bool ToviDebugMgr::RegSubModuleInfo_i(const std::string& name, const std::bitset<32>& level,
                                      const std::bitset<32>& output, bool bUseDebugDefault) {
  if (name.empty()) return false;
  auto found = m_SubModuleMap.find(name);
  if (found != m_SubModuleMap.end()) {
    found->second->SetMasks(level, output);
    return true;
  }

  std::bitset<32> newLevel = level;
  std::bitset<32> newOutput = output;
  if (bUseDebugDefault && !GetSubModuleInfo_i(kDefaultSubModule, newLevel, newOutput)) {
    return false;
  }
  if (m_pSubModuleIndex == nullptr) return false;
  SubModuleInfo* entry = new (std::nothrow) SubModuleInfo(name, newLevel, newOutput);
  if (entry == nullptr) return false;
  try {
    m_SubModuleMap[name] = entry;
  } catch (...) {
    delete entry;
    return false;
  }
  if (!m_pSubModuleIndex->Insert(entry)) {
    m_SubModuleMap.erase(name);
    delete entry;
    return false;
  }
  return true;
}

bool ToviDebugMgr::GetSubModuleInfo(const std::string& name, std::bitset<32>& level,
                                    std::bitset<32>& output) {
  const callgate::Pass pass(this);
  return pass && GetSubModuleInfo_i(name, level, output);
}

bool ToviDebugMgr::GetSubModuleInfo_i(const std::string& name, std::bitset<32>& level,
                                      std::bitset<32>& output) {
  if (m_pSubModuleIndex == nullptr) return false;
  const SubModuleInfo* entry = m_pSubModuleIndex->Find(name);
  if (entry == nullptr) return false;
  entry->Load(level, output);
  return true;
}

bool ToviDebugMgr::SetLogLevel(const std::string& name, ToviLogLevel level, bool on) {
  if (!ValidBit(level)) return false;
  const callgate::Pass pass(this);
  if (!pass) return false;
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_RegistryLock);
  if (!guard.locked()) return false;
  SubModuleInfo* entry = ChangeTarget(m_SubModuleMap, name);
  return entry != nullptr && entry->SetLevelBit(static_cast<unsigned>(level), on);
}

bool ToviDebugMgr::SetLogOutput(const std::string& name, ToviOutputDirection direction, bool on) {
  if (!ValidBit(direction)) return false;
  const callgate::Pass pass(this);
  if (!pass) return false;
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_RegistryLock);
  if (!guard.locked()) return false;
  SubModuleInfo* entry = ChangeTarget(m_SubModuleMap, name);
  return entry != nullptr && entry->SetOutputBit(static_cast<unsigned>(direction), on);
}

bool ToviDebugMgr::GetAllModuleInfo(
    ToviModuleMasks& items) {
  const callgate::Pass pass(this);
  if (!pass) return false;
  ACE_Read_Guard<ACE_RW_Thread_Mutex> guard(m_RegistryLock);
  if (!guard.locked() || !m_bInit.load(std::memory_order_acquire)) return false;
  for (const auto& entry : m_SubModuleMap) {
    entry.second->Load(items[entry.first].first, items[entry.first].second);
  }
  return true;
}

bool ToviDebugMgr::SetAllModuleInfo(const std::bitset<32>& level, const std::bitset<32>& output,
                                    bool bUseDebugDefault) {
  const callgate::Pass pass(this);
  if (!pass) return false;
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_RegistryLock);
  if (!guard.locked() || !m_bInit.load(std::memory_order_acquire)) return false;
  std::bitset<32> newLevel = level;
  std::bitset<32> newOutput = output;
  if (bUseDebugDefault && !GetSubModuleInfo_i(kDefaultSubModule, newLevel, newOutput)) {
    return false;
  }
  for (auto& entry : m_SubModuleMap) {
    entry.second->SetMasks(newLevel, newOutput);
  }
  return true;
}
