// Trace.cpp - the road of one trace call, from a product thread to a queued
// record.
//
// The tests come in a fixed order: the gate (the manager is still the
// published one, see CallGate.h), initialised, engine, trace-off, writer,
// arguments. Then the sub-module's masks may widen (never narrow) the
// caller's console and file demands, and the writer's AddLog builds and
// queues the record. Nothing here touches a file or the console; the lookup
// takes no lock, and the only locks are the queue's and, for application
// writers, the writer table's.
#include <bitset>
#include <cstdio>
#include <new>
#include <string>

#include <ace/Guard_T.h>
#include <ace/Thread_Mutex.h>

#include "ToviBaseUtil.h"
#include "ToviDebugEngine.h"
#include "ToviDebugMgr.h"
#include "debugmgr/CallGate.h"
#include "debugmgr/NameRules.h"
#include "debugmgr/SubModuleIndex.h"
#include "debugmgr/SubModuleInfo.h"
#include "forward/Forwarding.h"
#include "logwriter/ToviLogWriter.h"

namespace {
constexpr std::size_t kMaxAppName = 128;
constexpr std::size_t kWriterNameBufSize = 512;

bool ValidLevel(ToviLogLevel level) { return level >= 0 && level <= 31; }

// Adds the outputs of the sub-module (or of "debug" when it is not
// registered) to the caller's, when the sub-module logs this level.
void WidenOutputs(const SubModuleIndex* index, const std::string& subModule, ToviLogLevel level,
                  bool& bPrint, bool& bLog) {
  if ((bPrint && bLog) || index == nullptr) return;
  const SubModuleInfo* entry = index->FindOrFallback(subModule);
  if (entry == nullptr) return;
  std::bitset<32> levels;
  std::bitset<32> outputs;
  entry->Load(levels, outputs);
  if (!levels.test(static_cast<std::size_t>(level))) return;
  bPrint = bPrint || outputs.test(OUTPUT_CONSOLE);
  bLog = bLog || outputs.test(OUTPUT_FILE);
}

// Serialises the creation of application writers (there is one manager per
// process, so one lock serves).
ACE_Thread_Mutex g_appWriterCreation;

}  // namespace

bool ToviDebugMgr::Trace(const std::string& subModule, ToviLogLevel level, const char* text,
                         const AsnType* asn, bool bPrint, bool bLog) {
  const callgate::Pass pass(this);
  if (!pass || !m_bInit.load(std::memory_order_acquire)) return false;
  // Read after passing the gate, in the order its freers rely on.
  if (ToviDebugEngine* engine = m_pDebugEngine.load(std::memory_order_seq_cst)) {
    return engine->Trace(subModule, level, text, asn, bPrint, bLog);
  }
  if (m_bTraceOff.load(std::memory_order_acquire)) return false;
  ToviLogWriter* writer = m_pMainWriter.load(std::memory_order_acquire);
  if (writer == nullptr) return false;
  if (text == nullptr || !ValidLevel(level)) return false;

  WidenOutputs(m_pSubModuleIndex, subModule, level, bPrint, bLog);
  return writer->AddLog(subModule, level, text, asn, bPrint, bLog);
}

bool ToviDebugMgr::AppTrace(const std::string& subModule, ToviLogLevel level, const char* text,
                            const AsnType* asn, bool bPrint, bool bLog,
                            const std::string& appName) {
  const callgate::Pass pass(this);
  if (!pass || !m_bInit.load(std::memory_order_acquire)) return false;
  if (ToviDebugEngine* engine = m_pDebugEngine.load(std::memory_order_seq_cst)) {
    return engine->AppTrace(subModule, level, text, asn, bPrint, bLog, appName);
  }
  if (m_bTraceOff.load(std::memory_order_acquire)) return false;
  if (text == nullptr || !ValidLevel(level)) return false;
  if (appName.size() > kMaxAppName || EscapesLogDirectory(appName)) return false;

  std::string name = m_strInitName;
  if (!appName.empty()) {
    char buf[kWriterNameBufSize];
    std::snprintf(buf, sizeof buf, "%s%s_", m_strInitName.c_str(), appName.c_str());
    name = buf;
  }

  ToviLogWriter* writer = nullptr;
  {
    ACE_Read_Guard<ACE_RW_Thread_Mutex> guard(m_WriterTableLock);
    if (!guard.locked()) return false;
    // The bound is tested first, so a full table refuses known names too.
    if (m_WriterTable.size() > static_cast<std::size_t>(m_nMaxFileNum)) return false;
    auto found = m_WriterTable.find(name);
    if (found != m_WriterTable.end()) writer = found->second;
  }

  if (writer == nullptr) {
    // One creator at a time: a writer that starts and is then thrown away
    // would already have archived the winner's open file of the same name.
    // The table lock itself is not held while the writer starts, so calls
    // for existing names never wait for a creation.
    ACE_Guard<ACE_Thread_Mutex> creating(g_appWriterCreation);
    if (!creating.locked()) return false;
    std::string logDir;
    {
      // Only creators add entries, so what is seen here holds until the
      // new writer is entered.
      ACE_Read_Guard<ACE_RW_Thread_Mutex> guard(m_WriterTableLock);
      if (!guard.locked()) return false;
      if (m_WriterTable.size() > static_cast<std::size_t>(m_nMaxFileNum)) return false;
      auto found = m_WriterTable.find(name);
      if (found != m_WriterTable.end()) {
        writer = found->second;
      } else {
        auto main = m_WriterTable.find(m_strInitName);
        logDir = main != m_WriterTable.end() ? main->second->GetLogPath() : ToviGetDefaultLogPath();
      }
    }
    if (writer == nullptr) {
      // Asked only here: a name in the table has passed already.
      if (!PrefixFitsFileNames(logDir, name)) return false;
      ToviLogWriter* made =
          new (std::nothrow) ToviLogWriter(WriterOptions(logDir, name, subModule));
      if (made == nullptr) return false;
      ForwardFrom(*made, m_pSyslogForwarder);
      {
        ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_WriterTableLock);
        if (guard.locked()) {
          m_WriterTable[name] = made;
          writer = made;
        }
      }
      if (writer == nullptr) {
        delete made;  // the table could not be locked: leave the name out
        return false;
      }
    }
  }

  WidenOutputs(m_pSubModuleIndex, subModule, level, bPrint, bLog);
  return writer->AddLog(subModule, level, text, asn, bPrint, bLog);
}
