// ToviDebugMgr.cpp - the manager singleton: creation, Init, destruction, and
// the two small static services that the product's processes call through
// it.
//
// The singleton pointer is read without a lock on every Instance() call, so
// it is published with a release store only after the manager is fully
// built (double-checked creation). Destroy takes it back first and frees the
// manager only once the calls inside have left (see CallGate.h).
//
// Init reads and checks everything, and starts the main writer, before it
// changes the manager: a failed Init leaves the manager as it found it. The
// initialised flag is set last, because the trace path reads what Init set
// without a lock once it has seen the flag.
#include <new>
#include <string>

#include <ace/Guard_T.h>

#include "ToviBaseUtil.h"
#include "ToviDebugMgr.h"
#include "debugmgr/CallGate.h"
#include "debugmgr/ConfigWatch.h"
#include "debugmgr/DebugConfig.h"
#include "debugmgr/EngineSlot.h"
#include "debugmgr/LibraryObjects.h"
#include "debugmgr/NameRules.h"
#include "debugmgr/PrintfDefaults.h"
#include "debugmgr/SubModuleRegistry.h"
#include "debugmgr/WriterTable.h"
#include "forward/CrashReporter.h"
#include "forward/Forwarding.h"
#include "forward/SyslogForwarder.h"
#include "logwriter/LogFormat.h"
#include "logwriter/ToviLogWriter.h"
#include "port/ToviPort.h"

namespace {
// The one Init name whose process keeps five times the archives.
constexpr char kManyArchivesName[] = "TOVIMrb_p2_";

// The Init name starts the names of the main writer's files: whether a path
// of that name happens to exist says nothing about where they would land.
bool InitNameUsable(const std::string& logDir, const std::string& name) {
  return !EscapesLogDirectory(name) && PrefixFitsFileNames(logDir, name);
}

// What every writer of the manager is built with; application writers take
// their directory, prefix and header from the table.
LogWriterOptions WriterOptions(const DebugSettings& settings, const std::string& dir,
                               const std::string& prefix, const std::string& header) {
  LogWriterOptions options;
  options.logPath = dir;
  options.prefix = prefix;
  options.header = header;
  options.heldBackRecords = static_cast<unsigned>(settings.heldBackRecords);
  options.maxFileBytes = static_cast<unsigned>(settings.maxFileBytes);
  options.archivesKept = settings.archivesKept;
  options.fileMode = settings.fileMode;
  options.dirMode = settings.dirMode;
  if (prefix == kManyArchivesName) options.archivesKept *= 5;
  return options;
}
// The crash report goes into the main log, and every writer drains.
CrashReporter* StartCrashReports(WriterTable& writers) {
  auto report = [&writers](const std::string& text) {
    if (ToviLogWriter* main = writers.Main()) {
      const std::string subModule(logformat::kCrashSubModule);
      main->AddLog(subModule, LEVEL_ASSERT, text.c_str(), nullptr, false, true);
    }
  };
  auto drain = [&writers](int64_t deadlineMs) { writers.DrainAll(deadlineMs); };
  CrashReporter* reporter = nullptr;
  try {
    reporter = new CrashReporter(report, drain);
  } catch (...) {
    return nullptr;
  }
  if (reporter->Installed()) return reporter;
  delete reporter;  // another manager's, or the signals could not be hooked
  return nullptr;
}
// Looks at the debug file from the main writer's thread.
ConfigWatch* WatchConfig(const DebugSettings& settings, SubModuleRegistry& registry,
                         WriterTable& writers) {
  ToviLogWriter* main = writers.Main();
  if (main == nullptr) return nullptr;
  ConfigWatch* watch = nullptr;
  try {
    watch = new ConfigWatch(settings.file, registry);
    main->SetPeriodicTask(static_cast<unsigned>(settings.reloadSec) * 1000, g_strLibrarySubModule,
                          [watch] { return watch->Check(); });
  } catch (...) {
    delete watch;
    return nullptr;
  }
  return watch;
}
}  // namespace

ToviDebugMgr::ToviDebugMgr()
    : m_pEngine(new (std::nothrow) EngineSlot),
      m_pRegistry(new (std::nothrow) SubModuleRegistry),
      m_pDefaults(new (std::nothrow) PrintfDefaults),
      m_pWriters(new (std::nothrow) WriterTable),
      m_bInit(false),
      m_bTraceOff(false),
      m_pSyslogForwarder(nullptr),
      m_pCrashReporter(nullptr),
      m_pConfigWatch(nullptr) {}

ToviDebugMgr* ToviDebugMgr::Instance() {
  ToviDebugMgr* manager = m_pInstance.load(std::memory_order_acquire);
  if (manager != nullptr) return manager;

  ACE_Guard<ACE_Recursive_Thread_Mutex> guard(m_InstanceLock);
  if (!guard.locked()) return nullptr;
  manager = m_pInstance.load(std::memory_order_relaxed);
  if (manager != nullptr) return manager;
  manager = new (std::nothrow) ToviDebugMgr();
  if (manager != nullptr && (manager->m_pEngine == nullptr || manager->m_pRegistry == nullptr ||
                             manager->m_pDefaults == nullptr || manager->m_pWriters == nullptr)) {
    delete manager;  // memory ran short for a part: no manager rather than a lame one
    manager = nullptr;
  }
  m_pInstance.store(manager, std::memory_order_release);
  return manager;
}

void ToviDebugMgr::Destroy() {
  ACE_Guard<ACE_Recursive_Thread_Mutex> guard(m_InstanceLock);
  if (!guard.locked()) return;
  // The gate refuses every call on this manager from here on.
  ToviDebugMgr* manager = m_pInstance.exchange(nullptr, std::memory_order_seq_cst);
  if (manager == nullptr) return;
  // A manager that a call may still be inside is left alive, unreachable:
  // freeing it would pull the writers and the engine from under that call.
  if (!callgate::WaitForCallsInside()) return;
  delete manager;
}

// Runs once no call is inside and none can enter (Destroy).
ToviDebugMgr::~ToviDebugMgr() {
  // First: a crash from here on is no longer reported into writers that go.
  delete m_pCrashReporter;
  delete m_pEngine;
  // The forwarder's lines go into the main writer, which is about to go.
  if (m_pSyslogForwarder != nullptr) m_pSyslogForwarder->DisableNotify();
  delete m_pWriters;
  // After the writers: the main writer's thread looks through it.
  delete m_pConfigWatch;
  // Last, so that it gets what the writers wrote at their stop.
  delete m_pSyslogForwarder;
  delete m_pDefaults;
  delete m_pRegistry;
}

bool ToviDebugMgr::Init(const std::string& strName, const std::string& strDebugCfgFile,
                        const std::string& strLogPath, const std::string& strHeader,
                        bool bIgnored, bool bTraceOff) {
  (void)bIgnored;
  const callgate::Pass pass(this);
  if (!pass) return false;
  ACE_Guard<ACE_Thread_Mutex> guard(m_InitLock);
  if (!guard.locked()) return false;
  if (m_bInit.load(std::memory_order_relaxed)) return true;
  if (strName.empty()) return false;

  const DebugSettings settings = ReadDebugSettings(strDebugCfgFile);
  if (!strLogPath.empty()) toviport::MakeDirTree(strLogPath.c_str(), settings.dirMode);
  const std::string logDir = strLogPath.empty() ? ToviGetDefaultLogPath() : strLogPath;

  SyslogForwarder* forwarder = nullptr;
  if (!bTraceOff) {
    if (!InitNameUsable(logDir, strName)) return false;
    const LogWriterOptions options = WriterOptions(settings, logDir, strName, strHeader);
    ToviLogWriter* writer = new (std::nothrow) ToviLogWriter(options);
    if (writer == nullptr) return false;
    forwarder = StartForwarding(ReadSyslogKeys(settings.file), strName, *writer);
    if (!m_pWriters->Start(writer, options, static_cast<std::size_t>(settings.maxWriters),
                           forwarder)) {
      if (forwarder != nullptr) forwarder->DisableNotify();
      delete writer;
      delete forwarder;
      return false;
    }
  }

  for (const auto& module : settings.modules) {
    m_pRegistry->Register(module.first, module.second.first, module.second.second, false);
  }
  m_pSyslogForwarder = forwarder;
  if (!bTraceOff && settings.crashHandler) m_pCrashReporter = StartCrashReports(*m_pWriters);
  if (!bTraceOff && settings.reloadSec > 0) m_pConfigWatch = WatchConfig(settings, *m_pRegistry, *m_pWriters);
  m_bTraceOff.store(bTraceOff, std::memory_order_release);
  m_bInit.store(true, std::memory_order_release);
  return true;
}

bool ToviDebugMgr::IsInit() const {
  const callgate::Pass pass(this);
  return pass && m_bInit.load(std::memory_order_acquire);
}

int ToviDebugMgr::system(const char* command) { return toviport::RunCommand(command); }

int ToviDebugMgr::TOVIchown(const std::string& path) {
  (void)path;
  return 0;
}
