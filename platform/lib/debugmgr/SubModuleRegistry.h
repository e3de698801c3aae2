// SubModuleRegistry.h - the sub-modules with their level and output masks.
//
// Lookups go through the lock-free index, so trace calls of many threads
// look up at once without touching a shared line; every change holds the
// registry's lock for writing. An entry, once made, stays until the registry
// is destroyed, so a pointer from a lookup stays valid for as long as the
// registry lives.
#ifndef TOVI_DEBUGMGR_SUBMODULEREGISTRY_H
#define TOVI_DEBUGMGR_SUBMODULEREGISTRY_H

#include <bitset>
#include <map>
#include <string>

#include "ToviLogLevel.h"
#include "debugmgr/SubModuleIndex.h"
#include "port/Lock.h"

class SubModuleInfo;

class SubModuleRegistry {
public:
  SubModuleRegistry();
  ~SubModuleRegistry();
  SubModuleRegistry(const SubModuleRegistry&) = delete;
  SubModuleRegistry& operator=(const SubModuleRegistry&) = delete;

  // Any thread, no lock: the entry of name, else that of "debug"; null when
  // neither exists.
  const SubModuleInfo* FindOrDefault(const std::string& name) const {
    return m_index.FindOrFallback(name);
  }
  // Any thread, no lock. False when name has no entry.
  bool Get(const std::string& name, std::bitset<32>& level, std::bitset<32>& output) const;

  // Each change below is false when the lock cannot be taken, and otherwise
  // as its own line says.
  // Sets the masks of name, making its entry when it is new; with
  // useDefault a new entry takes the masks of "debug" instead (false when
  // "debug" has none). False for the empty name, and when memory is short.
  bool Register(const std::string& name, const std::bitset<32>& level,
                const std::bitset<32>& output, bool useDefault) EXCLUDES(m_lock);
  // Sets or clears bit n (0-31) of one mask of name ("debug" for the empty
  // name); false when it has no entry.
  bool SetLevelBit(const std::string& name, unsigned n, bool on) EXCLUDES(m_lock);
  bool SetOutputBit(const std::string& name, unsigned n, bool on) EXCLUDES(m_lock);
  // Every entry's masks into items.
  bool GetAll(ToviModuleMasks& items) const EXCLUDES(m_lock);
  // Gives every entry the same masks (with useDefault those of "debug").
  bool SetAll(const std::bitset<32>& level, const std::bitset<32>& output, bool useDefault)
      EXCLUDES(m_lock);

private:
  using Entries = std::map<std::string, SubModuleInfo*>;
  // The one place where a lock that cannot be taken becomes a refusal: runs
  // body on the entries with the lock held, and is false when it could not
  // be taken or body said false.
  template <typename Body>
  bool Changing(Body body) EXCLUDES(m_lock);
  template <typename Body>
  bool Reading(Body body) const EXCLUDES(m_lock);
  // The entry that a bit change addresses: name, or "debug" for the empty
  // name.
  static SubModuleInfo* ChangeTarget(Entries& entries, const std::string& name);

  mutable toviport::RWMutex m_lock;
  Entries m_entries GUARDED_BY(m_lock);
  // The same entries, for lookups that take no lock; added to under m_lock.
  SubModuleIndex m_index;
};

#endif
