// WriterTable.cpp - finding and making the manager's writers.
#include "debugmgr/WriterTable.h"

#include <new>

#include "debugmgr/NameRules.h"
#include "forward/Forwarding.h"

namespace {
constexpr std::size_t kMaxAppName = 128;
}  // namespace

bool WriterTable::Start(ToviLogWriter* main, const LogWriterOptions& options,
                        std::size_t maxWriters, SyslogForwarder* forwarder) {
  toviport::WriterLock lock(m_lock);
  if (!lock) return false;
  try {
    m_options = options;
    m_writers[main->Prefix()] = main;
  } catch (...) {
    return false;
  }
  m_maxWriters = maxWriters;
  m_forwarder = forwarder;
  m_main.store(main, std::memory_order_release);
  return true;
}

ToviLogWriter* WriterTable::GetOrCreate(const std::string& appName, const std::string& header) {
  if (appName.size() > kMaxAppName || EscapesLogDirectory(appName)) return nullptr;
  // "<Init name><application name>_", so that its files sort beside the
  // main writer's.
  const std::string& initName = m_options.prefix;
  const std::string name = appName.empty() ? initName : initName + appName + "_";
  if (ToviLogWriter* writer = Find(name)) return writer;
  return Create(name, header);
}

ToviLogWriter* WriterTable::Find(const std::string& name) {
  toviport::ReaderLock lock(m_lock);
  // The bound is tested first, so a full table refuses known names too.
  if (!lock || Full()) return nullptr;
  auto found = m_writers.find(name);
  return found == m_writers.end() ? nullptr : found->second;
}

ToviLogWriter* WriterTable::Create(const std::string& name, const std::string& header) {
  toviport::MutexLock creating(m_creation);
  if (!creating) return nullptr;
  std::string logDir;
  {
    toviport::ReaderLock lock(m_lock);
    if (!lock || Full()) return nullptr;
    auto found = m_writers.find(name);
    if (found != m_writers.end()) return found->second;
    const ToviLogWriter* main = Main();
    if (main == nullptr) return nullptr;
    logDir = main->GetLogPath();
  }
  // Asked only here: a name in the table has passed already.
  if (!PrefixFitsFileNames(logDir, name)) return nullptr;
  LogWriterOptions options = m_options;
  options.logPath = logDir;
  options.prefix = name;
  options.header = header;
  ToviLogWriter* made = new (std::nothrow) ToviLogWriter(options);
  if (made == nullptr) return nullptr;
  ForwardFrom(*made, m_forwarder);
  {
    toviport::WriterLock lock(m_lock);
    if (lock) {
      try {
        m_writers[name] = made;
        return made;
      } catch (...) {
      }
    }
  }
  delete made;  // it could not be entered: leave the name out
  return nullptr;
}

void WriterTable::DrainAll(int64_t deadlineMs) {
  toviport::ReaderLock lock(m_lock);
  if (!lock) return;
  for (auto& entry : m_writers) entry.second->WaitDrained(deadlineMs);
}

void WriterTable::Clear() {
  toviport::WriterLock lock(m_lock);
  for (auto& entry : m_writers) delete entry.second;
  m_writers.clear();
  m_main.store(nullptr, std::memory_order_release);
}
