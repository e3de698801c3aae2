// LibraryObjects.h - process-wide objects that exist from library load to
// unload.
#ifndef TOVI_DEBUGMGR_LIBRARYOBJECTS_H
#define TOVI_DEBUGMGR_LIBRARYOBJECTS_H

#include <string>

// The sub-module name under which the library traces its own messages.
extern const std::string g_strLibrarySubModule;

#endif
