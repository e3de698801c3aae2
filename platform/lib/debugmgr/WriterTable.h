// WriterTable.h - the manager's log writers: the main one, and one per
// application name that AppTrace has used.
//
// The main writer is read on every trace call without a lock. Application
// writers are looked up under the table's lock for reading, so calls for
// known names never wait for one another; a new name's writer is made by one
// creator at a time, outside the table lock, so that calls for existing
// names never wait for a writer to start either. One creator at a time
// because a writer that starts and is then thrown away would already have
// archived the winner's open file of the same name.
#ifndef TOVI_DEBUGMGR_WRITERTABLE_H
#define TOVI_DEBUGMGR_WRITERTABLE_H

#include <atomic>
#include <cstddef>
#include <map>
#include <string>

#include "logwriter/ToviLogWriter.h"
#include "port/Lock.h"

class SyslogForwarder;

class WriterTable {
public:
  WriterTable() = default;
  // Deletes every writer (see Clear).
  ~WriterTable() { Clear(); }
  WriterTable(const WriterTable&) = delete;
  WriterTable& operator=(const WriterTable&) = delete;

  // Once, at Init: takes over main, which is entered under its prefix and
  // published. Application writers are then built like options, from the
  // main writer's directory, at most maxWriters in all, and their records go
  // to forwarder too (null: no forwarding). False, with main still the
  // caller's, when memory is short.
  bool Start(ToviLogWriter* main, const LogWriterOptions& options, std::size_t maxWriters,
             SyslogForwarder* forwarder) EXCLUDES(m_lock);

  // Any thread, no lock: the main writer, or null before Start.
  ToviLogWriter* Main() const { return m_main.load(std::memory_order_acquire); }

  // The writer of appName (the main writer's for the empty name), made with
  // header when new. Null when the name is refused (too long, or it would
  // leave the log directory), the table is full (known names are refused
  // too then), or the writer cannot be made.
  ToviLogWriter* GetOrCreate(const std::string& appName, const std::string& header)
      EXCLUDES(m_lock, m_creation);

  // Waits until every writer has put out what it holds, or until deadline
  // (SteadyMs). For the crash report: a writer stuck or gone is not waited
  // for beyond the deadline.
  void DrainAll(int64_t deadlineMs) EXCLUDES(m_lock);

  // Deletes every writer, which writes out what was queued before the stop
  // and waits for its thread. Only once no call can reach the table.
  void Clear() EXCLUDES(m_lock);

private:
  // The writer of name; null when it has none or the table is full.
  ToviLogWriter* Find(const std::string& name) EXCLUDES(m_lock);
  ToviLogWriter* Create(const std::string& name, const std::string& header)
      EXCLUDES(m_lock, m_creation);
  bool Full() const REQUIRES_SHARED(m_lock) { return m_writers.size() > m_maxWriters; }

  mutable toviport::RWMutex m_lock;
  std::map<std::string, ToviLogWriter*> m_writers GUARDED_BY(m_lock);
  std::atomic<ToviLogWriter*> m_main{nullptr};
  // Only creators add entries, so what a creator sees under m_lock holds
  // until it enters its new writer.
  toviport::Mutex m_creation;
  // Set by Start before the manager is published as initialised, then only
  // read.
  LogWriterOptions m_options;
  std::size_t m_maxWriters = 0;
  SyslogForwarder* m_forwarder = nullptr;
};

#endif
