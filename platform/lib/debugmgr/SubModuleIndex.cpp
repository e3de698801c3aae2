// SubModuleIndex.cpp - the lock-free lookup table of sub-modules.
#include "debugmgr/SubModuleIndex.h"

#include <new>

#include "debugmgr/SubModuleCache.h"
#include "debugmgr/SubModuleInfo.h"

namespace {
constexpr std::size_t kFirstSlots = 64;
}

// Threads keep what they found under the index's address (SubModuleCache.h),
// and a new index may take the address of one destroyed, say when a manager
// is destroyed and made again. Both ends of an index's life move the
// version on, so what was kept for an earlier index at the same address no
// longer counts: no entry that a destroyed index freed is handed out.
SubModuleIndex::SubModuleIndex(const std::string& fallback)
    : m_fallbackName(fallback), m_fallbackHash(SubModuleInfo::HashOf(fallback)) {
  submodulecache::Invalidate();
}

SubModuleIndex::~SubModuleIndex() {
  FreeTable(m_table.load(std::memory_order_relaxed));
  for (Table* table : m_retiredTables) FreeTable(table);
  submodulecache::Invalidate();
}

SubModuleIndex::Table* SubModuleIndex::NewTable(std::size_t slots) {
  Table* table = new (std::nothrow) Table;
  if (table == nullptr) return nullptr;
  table->slots = new (std::nothrow) std::atomic<SubModuleInfo*>[slots];
  if (table->slots == nullptr) {
    delete table;
    return nullptr;
  }
  for (std::size_t i = 0; i < slots; ++i) table->slots[i].store(nullptr, std::memory_order_relaxed);
  table->mask = slots - 1;
  return table;
}

void SubModuleIndex::FreeTable(Table* table) {
  if (table == nullptr) return;
  delete[] table->slots;
  delete table;
}

void SubModuleIndex::Place(Table& table, SubModuleInfo* entry) {
  std::size_t i = entry->Hash() & table.mask;
  while (table.slots[i].load(std::memory_order_relaxed) != nullptr) i = (i + 1) & table.mask;
  // The entry is complete before a reader can find it.
  table.slots[i].store(entry, std::memory_order_release);
  ++table.used;
}

SubModuleInfo* SubModuleIndex::Find(const std::string& name) const {
  return Find(name, SubModuleInfo::HashOf(name));
}

SubModuleInfo* SubModuleIndex::FindOrFallback(const std::string& name) const {
  SubModuleInfo* entry = nullptr;
  uint64_t version = 0;
  if (submodulecache::Find(this, name, entry, version)) return entry;
  entry = Find(name, SubModuleInfo::HashOf(name));
  if (entry == nullptr) entry = m_fallback.load(std::memory_order_acquire);
  submodulecache::Keep(this, name, entry, version);
  return entry;
}

SubModuleInfo* SubModuleIndex::Find(const std::string& name, uint64_t hash) const {
  const Table* table = m_table.load(std::memory_order_acquire);
  if (table == nullptr) return nullptr;
  for (std::size_t i = hash & table->mask;; i = (i + 1) & table->mask) {
    SubModuleInfo* entry = table->slots[i].load(std::memory_order_acquire);
    if (entry == nullptr) return nullptr;
    if (entry->Hash() == hash && entry->Name() == name) return entry;
  }
}

bool SubModuleIndex::Insert(SubModuleInfo* entry) {
  Table* table = m_table.load(std::memory_order_relaxed);
  // At most half full, so that a probe ends soon at an empty slot.
  if (table == nullptr || 2 * (table->used + 1) > table->mask + 1) {
    const std::size_t slots = table == nullptr ? kFirstSlots : 2 * (table->mask + 1);
    Table* grown = NewTable(slots);
    if (grown == nullptr) return false;
    if (table != nullptr) {
      try {
        m_retiredTables.push_back(table);
      } catch (...) {
        FreeTable(grown);
        return false;
      }
      for (std::size_t i = 0; i <= table->mask; ++i) {
        SubModuleInfo* old = table->slots[i].load(std::memory_order_relaxed);
        if (old != nullptr) Place(*grown, old);
      }
    }
    m_table.store(grown, std::memory_order_release);
    table = grown;
  }
  Place(*table, entry);
  if (entry->Hash() == m_fallbackHash && entry->Name() == m_fallbackName) {
    m_fallback.store(entry, std::memory_order_release);
  }
  // The name, and with the fallback every unregistered name, now finds
  // another entry than the threads may have kept.
  submodulecache::Invalidate();
  return true;
}
