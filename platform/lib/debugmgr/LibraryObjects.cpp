// LibraryObjects.cpp - what loading the library builds, in this order: the
// library's own sub-module name and the route of its own messages, ACE's
// initialisation, and the lock that guards the creation of the manager. They live in one file because only
// within one translation unit is their order of construction (and the
// reverse order of destruction at unload) guaranteed.
#include <atomic>
#include <string>

#include <ace/Init_ACE.h>

#include "ToviDebugMgr.h"
#include "baseutil/OutputSwitches.h"
#include "debugmgr/LibraryObjects.h"

const std::string g_strLibrarySubModule("MRB");

namespace {
// The library's own messages go through the same front end as everyone
// else's, so they are filtered, formatted and written the same way (or
// handed to a registered engine).
bool TraceLibraryMessage(const char* text, bool bPrint, bool bLog) {
  ToviDebugMgr* manager = ToviDebugMgr::Instance();
  if (manager == nullptr) return false;
  return manager->Trace(g_strLibrarySubModule, LEVEL_INFO, text, nullptr, bPrint, bLog);
}
// Installed at load; taken out again at unload, before the name it traces
// under is destroyed.
struct SinkLifetime {
  SinkLifetime() { SetLibraryMessageSink(&TraceLibraryMessage); }
  ~SinkLifetime() { SetLibraryMessageSink(nullptr); }
  SinkLifetime(const SinkLifetime&) = delete;
  SinkLifetime& operator=(const SinkLifetime&) = delete;
};
SinkLifetime g_sinkLifetime;

// ACE is initialised for as long as the library is loaded.
struct AceLifetime {
  AceLifetime() { ACE::init(); }
  ~AceLifetime() { ACE::fini(); }
  AceLifetime(const AceLifetime&) = delete;
  AceLifetime& operator=(const AceLifetime&) = delete;
};
AceLifetime g_aceLifetime;
}  // namespace

ACE_Recursive_Thread_Mutex ToviDebugMgr::m_InstanceLock;
std::atomic<ToviDebugMgr*> ToviDebugMgr::m_pInstance{nullptr};
