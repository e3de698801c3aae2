// PrintfDefaults.h - the sub-module and level that Printf uses when its
// caller names none. Set from any thread while others trace: the name is
// read and written under its own lock, the level is an atomic.
#ifndef TOVI_DEBUGMGR_PRINTFDEFAULTS_H
#define TOVI_DEBUGMGR_PRINTFDEFAULTS_H

#include <atomic>
#include <string>

#include "ToviLogLevel.h"
#include "port/Lock.h"

class PrintfDefaults {
public:
  ToviLogLevel Level() const { return m_level.load(std::memory_order_relaxed); }
  void SetLevel(ToviLogLevel level) { m_level.store(level, std::memory_order_relaxed); }

  // A copy, so that a setter may run meanwhile; empty when the lock cannot
  // be taken or memory is short.
  std::string SubModule() const EXCLUDES(m_lock) {
    toviport::MutexLock lock(m_lock);
    if (!lock) return std::string();
    try {
      return m_subModule;
    } catch (...) {
      return std::string();
    }
  }
  // The old name stays when the lock cannot be taken or memory is short.
  void SetSubModule(const std::string& name) EXCLUDES(m_lock) {
    toviport::MutexLock lock(m_lock);
    if (!lock) return;
    try {
      m_subModule = name;
    } catch (...) {
    }
  }

private:
  mutable toviport::Mutex m_lock;
  std::string m_subModule GUARDED_BY(m_lock);
  std::atomic<ToviLogLevel> m_level{LEVEL_INFO};
};

#endif
