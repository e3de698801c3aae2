// Lifecycle.cpp - the manager singleton: creation, destruction and the two
// small static services that the product's processes call through it.
//
// The singleton pointer is read without a lock on every Instance() call, so
// it is published with a release store only after the manager is fully
// built (double-checked creation). Destroy takes it back first and frees the
// manager only once the calls inside have left (see CallGate.h).
#include <ace/Guard_T.h>

#include "ToviDebugEngine.h"
#include "ToviDebugMgr.h"
#include "debugmgr/CallGate.h"
#include "debugmgr/ConfigKeys.h"
#include "debugmgr/SubModuleIndex.h"
#include "debugmgr/SubModuleInfo.h"
#include "forward/SyslogForwarder.h"
#include "logwriter/ToviLogWriter.h"
#include "port/ToviPort.h"

ToviDebugMgr::ToviDebugMgr()
    : m_bInit(false),
      m_nFiltLogBufSize(0),
      m_nMaxFileNum(0),
      m_nEachFileMaxSize(0),
      m_nEachProcessMaxZipNum(0),
      m_nZipFileIncludeFileNum(0),
      m_bTraceOff(false),
      m_pDebugEngine(nullptr),
      m_pMainWriter(nullptr),
      m_pSubModuleIndex(new (std::nothrow) SubModuleIndex(configkeys::kDefaultSubModule)),
      m_nDefLogLevel(LEVEL_INFO),
      m_pSyslogForwarder(nullptr) {}

ToviDebugMgr* ToviDebugMgr::Instance() {
  ToviDebugMgr* manager = m_pInstance.load(std::memory_order_acquire);
  if (manager != nullptr) return manager;

  ACE_Guard<ACE_Recursive_Thread_Mutex> guard(m_InstanceLock);
  if (!guard.locked()) return nullptr;
  manager = m_pInstance.load(std::memory_order_relaxed);
  if (manager == nullptr) {
    manager = new (std::nothrow) ToviDebugMgr();
    m_pInstance.store(manager, std::memory_order_release);
  }
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
  delete m_pDebugEngine.exchange(nullptr, std::memory_order_acq_rel);

  // The forwarder's lines go into the main writer, which is about to go.
  if (m_pSyslogForwarder != nullptr) m_pSyslogForwarder->DisableNotify();
  {
    // Deleting a writer writes out what was queued before the stop and
    // waits for its thread.
    ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_WriterTableLock);
    for (auto& entry : m_WriterTable) delete entry.second;
    m_WriterTable.clear();
    m_pMainWriter.store(nullptr, std::memory_order_release);
  }

  // Last, so that it gets what the writers wrote at their stop.
  delete m_pSyslogForwarder;
  m_pSyslogForwarder = nullptr;

  delete m_pSubModuleIndex;
  m_pSubModuleIndex = nullptr;
  for (auto& entry : m_SubModuleMap) delete entry.second;
  m_SubModuleMap.clear();
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
