// ToviDebugEngine.h - a process's own replacement for the library's trace output.
//
// Once registered with ToviDebugMgr::RegDebugEngine, an engine receives every
// Trace and AppTrace call of the initialised manager, from any thread and
// concurrently, and the manager owns it. Unregistering frees it, and
// registering another hands it back, once the calls inside it have left.
// The destructor is virtual and comes after the two operations, so a derived
// engine's own clean-up runs when the manager deletes it.
#ifndef TOVI_DEBUGENGINE_H
#define TOVI_DEBUGENGINE_H

#include <string>

#include "ToviDebugMgr.h"
#include "ToviExport.h"

class AsnType;

class TOVI_EXPORT ToviDebugEngine {
public:
  ToviDebugEngine();
  ToviDebugEngine(const ToviDebugEngine& other);
  ToviDebugEngine& operator=(const ToviDebugEngine& other);

  virtual bool Trace(const std::string& subModule, ToviLogLevel level, const char* text,
                     const AsnType* asn, bool bPrint, bool bLog) = 0;
  virtual bool AppTrace(const std::string& subModule, ToviLogLevel level, const char* text,
                        const AsnType* asn, bool bPrint, bool bLog,
                        const std::string& appName) = 0;
  virtual ~ToviDebugEngine();
};

#endif
