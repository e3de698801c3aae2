// Lock.h - the library's own locks, as capabilities that clang's thread
// safety analysis follows (see ThreadAnnotations.h).
//
// They are ACE's thread mutexes underneath. An ACE lock can fail to be
// taken (the system refuses); a scoped lock then says so through its bool,
// and the caller gives up without touching what the lock guards. The
// analysis cannot see that branch, so it treats a scoped lock as held for
// its whole scope: code must test the lock before anything else. A class
// with many locked operations tests it in one helper that runs each
// operation's body under the lock (SubModuleRegistry::Changing, for one).
#ifndef TOVI_PORT_LOCK_H
#define TOVI_PORT_LOCK_H

#include <ace/Condition_Thread_Mutex.h>
#include <ace/RW_Thread_Mutex.h>
#include <ace/Thread_Mutex.h>
#include <ace/Time_Value.h>

#include "port/ThreadAnnotations.h"

namespace toviport {

class CAPABILITY("mutex") Mutex {
public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  // True when taken; false (not held) when the system refused.
  bool Lock() ACQUIRE() { return m_native.acquire() == 0; }
  bool TryLock() { return m_native.tryacquire() == 0; }
  void Unlock() RELEASE() { m_native.release(); }

private:
  friend class Condition;
  ACE_Thread_Mutex m_native;
};

class CAPABILITY("rwlock") RWMutex {
public:
  RWMutex() = default;
  RWMutex(const RWMutex&) = delete;
  RWMutex& operator=(const RWMutex&) = delete;

  bool Lock() ACQUIRE() { return m_native.acquire_write() == 0; }
  void Unlock() RELEASE() { m_native.release(); }
  bool LockShared() ACQUIRE_SHARED() { return m_native.acquire_read() == 0; }
  void UnlockShared() RELEASE_SHARED() { m_native.release(); }

private:
  ACE_RW_Thread_Mutex m_native;
};

// Holds a Mutex, or an RWMutex for writing, for its scope.
class SCOPED_CAPABILITY MutexLock {
public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex)
      : m_mutex(&mutex), m_locked(mutex.Lock()) {}
  ~MutexLock() RELEASE() {
    if (m_locked) m_mutex->Unlock();
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;
  explicit operator bool() const { return m_locked; }

private:
  Mutex* m_mutex;
  bool m_locked;
};

class SCOPED_CAPABILITY WriterLock {
public:
  explicit WriterLock(RWMutex& mutex) ACQUIRE(mutex) : m_mutex(&mutex), m_locked(mutex.Lock()) {}
  ~WriterLock() RELEASE() {
    if (m_locked) m_mutex->Unlock();
  }
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;
  explicit operator bool() const { return m_locked; }

private:
  RWMutex* m_mutex;
  bool m_locked;
};

class SCOPED_CAPABILITY ReaderLock {
public:
  explicit ReaderLock(RWMutex& mutex) ACQUIRE_SHARED(mutex)
      : m_mutex(&mutex), m_locked(mutex.LockShared()) {}
  ~ReaderLock() RELEASE() {
    if (m_locked) m_mutex->UnlockShared();
  }
  ReaderLock(const ReaderLock&) = delete;
  ReaderLock& operator=(const ReaderLock&) = delete;
  explicit operator bool() const { return m_locked; }

private:
  RWMutex* m_mutex;
  bool m_locked;
};

// A condition bound to one Mutex for its life.
class Condition {
public:
  explicit Condition(Mutex& mutex) : m_native(mutex.m_native) {}
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;

  // Waits for a Signal, or until the absolute time `until` on the clock of
  // DeadlineAfterMs (null: no bound). mutex must be the bound one.
  // 0 when signalled, -1 when the time ran out (or the wait failed).
  int Wait(Mutex& mutex, const ACE_Time_Value* until = nullptr) REQUIRES(mutex) {
    (void)mutex;
    return m_native.wait(until);
  }
  void Signal() { m_native.signal(); }
  void Broadcast() { m_native.broadcast(); }

private:
  ACE_Condition_Thread_Mutex m_native;
};

}  // namespace toviport

#endif
