// SubModuleIndex.h - finding a sub-module's registry entry without a lock.
//
// Every trace call looks up its sub-module. A reader lock would make all
// tracing threads write one shared counter on every call, so lookups go
// through an open-addressing table whose slots are atomics instead: readers
// only load. Entries are added, never removed, under the registry lock; a
// table that fills up is replaced by one twice its size, and the old one is
// kept until the index is destroyed, since a reader may still be inside it.
// The tables kept so add up to less than the current one.
#ifndef TOVI_DEBUGMGR_SUBMODULEINDEX_H
#define TOVI_DEBUGMGR_SUBMODULEINDEX_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class SubModuleInfo;

class SubModuleIndex {
public:
  // fallback names the entry that stands in for unregistered names.
  explicit SubModuleIndex(const std::string& fallback);
  ~SubModuleIndex();
  SubModuleIndex(const SubModuleIndex&) = delete;
  SubModuleIndex& operator=(const SubModuleIndex&) = delete;

  // Any thread, no lock; null when the name has no entry.
  SubModuleInfo* Find(const std::string& name) const;
  // The name's entry, else the fallback's; null when neither has one.
  // Answers a name this thread asked for lately from its own cache.
  SubModuleInfo* FindOrFallback(const std::string& name) const;
  // Under the registry lock held for writing; false when memory is short.
  bool Insert(SubModuleInfo* entry);

private:
  struct Table {
    std::size_t mask = 0;  // slot count - 1, a power of two less one
    std::size_t used = 0;
    std::atomic<SubModuleInfo*>* slots = nullptr;
  };

  SubModuleInfo* Find(const std::string& name, uint64_t hash) const;
  static Table* NewTable(std::size_t slots);
  static void FreeTable(Table* table);
  static void Place(Table& table, SubModuleInfo* entry);

  const std::string m_fallbackName;
  const uint64_t m_fallbackHash;
  std::atomic<Table*> m_table{nullptr};
  // The fallback's entry once it exists: entries live as long as the index.
  std::atomic<SubModuleInfo*> m_fallback{nullptr};
  std::vector<Table*> m_retiredTables;
};

#endif
