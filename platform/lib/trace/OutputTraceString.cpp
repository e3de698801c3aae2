// OutputTraceString.cpp - the library's own messages go through the same
// front end as everyone else's, so they are filtered, formatted and written
// the same way (or handed to a registered engine).
#include "trace/OutputTraceString.h"

#include "ToviDebugMgr.h"
#include "debugmgr/LibraryObjects.h"

bool OutputTraceString(const char* text, bool bPrint, bool bLog) {
  ToviDebugMgr* manager = ToviDebugMgr::Instance();
  if (manager == nullptr) return false;
  return manager->Trace(g_strLibrarySubModule, LEVEL_INFO, text, nullptr, bPrint, bLog);
}
