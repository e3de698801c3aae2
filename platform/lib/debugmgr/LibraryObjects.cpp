// LibraryObjects.cpp - what loading the library builds, in this order: the
// library's own sub-module name, ACE's initialisation, and the lock that
// guards the creation of the manager. They live in one file because only
// within one translation unit is their order of construction (and the
// reverse order of destruction at unload) guaranteed.
#include <atomic>
#include <string>

#include <ace/Init_ACE.h>

#include "ToviDebugMgr.h"
#include "debugmgr/LibraryObjects.h"

const std::string g_strLibrarySubModule("MRB");

namespace {
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
