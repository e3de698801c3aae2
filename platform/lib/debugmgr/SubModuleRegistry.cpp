// SubModuleRegistry.cpp - changing and listing the sub-modules' masks.
#include "debugmgr/SubModuleRegistry.h"

#include <new>

#include "debugmgr/ConfigKeys.h"
#include "debugmgr/SubModuleInfo.h"

using configkeys::kDefaultSubModule;

SubModuleRegistry::SubModuleRegistry() : m_index(kDefaultSubModule) {}

SubModuleRegistry::~SubModuleRegistry() {
  toviport::WriterLock lock(m_lock);
  for (auto& entry : m_entries) delete entry.second;
}

template <typename Body>
bool SubModuleRegistry::Changing(Body body) {
  toviport::WriterLock lock(m_lock);
  return lock && body(m_entries);
}

template <typename Body>
bool SubModuleRegistry::Reading(Body body) const {
  toviport::ReaderLock lock(m_lock);
  return lock && body(m_entries);
}

SubModuleInfo* SubModuleRegistry::ChangeTarget(Entries& entries, const std::string& name) {
  auto found = entries.find(name.empty() ? std::string(kDefaultSubModule) : name);
  return found == entries.end() ? nullptr : found->second;
}

bool SubModuleRegistry::Get(const std::string& name, std::bitset<32>& level,
                            std::bitset<32>& output) const {
  const SubModuleInfo* entry = m_index.Find(name);
  if (entry == nullptr) return false;
  entry->Load(level, output);
  return true;
}

bool SubModuleRegistry::Register(const std::string& name, const std::bitset<32>& level,
                                 const std::bitset<32>& output, bool useDefault) {
  if (name.empty()) return false;
  return Changing([&](Entries& entries) {
    auto found = entries.find(name);
    if (found != entries.end()) {
      found->second->SetMasks(level, output);
      return true;
    }
    std::bitset<32> newLevel = level;
    std::bitset<32> newOutput = output;
    if (useDefault && !Get(kDefaultSubModule, newLevel, newOutput)) return false;
    SubModuleInfo* entry = new (std::nothrow) SubModuleInfo(name, newLevel, newOutput);
    if (entry == nullptr) return false;
    try {
      entries[name] = entry;
    } catch (...) {
      delete entry;
      return false;
    }
    if (!m_index.Insert(entry)) {
      entries.erase(name);
      delete entry;
      return false;
    }
    return true;
  });
}

bool SubModuleRegistry::SetLevelBit(const std::string& name, unsigned n, bool on) {
  return Changing([&](Entries& entries) {
    SubModuleInfo* entry = ChangeTarget(entries, name);
    return entry != nullptr && entry->SetLevelBit(n, on);
  });
}

bool SubModuleRegistry::SetOutputBit(const std::string& name, unsigned n, bool on) {
  return Changing([&](Entries& entries) {
    SubModuleInfo* entry = ChangeTarget(entries, name);
    return entry != nullptr && entry->SetOutputBit(n, on);
  });
}

bool SubModuleRegistry::GetAll(ToviModuleMasks& items) const {
  return Reading([&](const Entries& entries) {
    for (const auto& entry : entries) {
      entry.second->Load(items[entry.first].first, items[entry.first].second);
    }
    return true;
  });
}

bool SubModuleRegistry::SetAll(const std::bitset<32>& level, const std::bitset<32>& output,
                               bool useDefault) {
  return Changing([&](Entries& entries) {
    std::bitset<32> newLevel = level;
    std::bitset<32> newOutput = output;
    if (useDefault && !Get(kDefaultSubModule, newLevel, newOutput)) return false;
    for (auto& entry : entries) entry.second->SetMasks(newLevel, newOutput);
    return true;
  });
}
