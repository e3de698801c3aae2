// ToviDebugMgr.h - the process-wide trace manager.
//
// One manager per process (Instance/Destroy). Init reads the debug
// configuration, registers the configured sub-modules and starts the main log
// writer; from then on any thread may trace. A trace call only formats and
// queues a record: the files and the console are written by the writer's own
// thread.
#ifndef TOVI_DEBUGMGR_H
#define TOVI_DEBUGMGR_H

#include <atomic>
#include <bitset>
#include <cstdarg>
#include <string>

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Thread_Mutex.h>

#include "ToviExport.h"
#include "ToviLogLevel.h"

class AsnType;
class ConfigWatch;
class CrashReporter;
class ToviDebugEngine;
class ToviInterString;
class EngineSlot;
class PrintfDefaults;
class SubModuleRegistry;
class SyslogForwarder;
class WriterTable;

class TOVI_EXPORT ToviDebugMgr {
public:
  // Lifecycle.
  static ToviDebugMgr* Instance();
  static void Destroy();
  ~ToviDebugMgr();
  bool Init(const std::string& strName, const std::string& strDebugCfgFile,
            const std::string& strLogPath, const std::string& strHeader, bool bIgnored,
            bool bTraceOff);
  bool IsInit() const;
  static int system(const char* command);
  static int TOVIchown(const std::string& path);

  // Sub-module registry.
  void SetDefLogLevel(ToviLogLevel level);
  void SetDefSubModuleName(const std::string& name);
  bool RegSubModuleInfo(const std::string& name, const std::bitset<32>& level,
                        const std::bitset<32>& output, bool bUseDebugDefault);
  bool GetSubModuleInfo(const std::string& name, std::bitset<32>& level,
                        std::bitset<32>& output);
  bool SetLogLevel(const std::string& name, ToviLogLevel level, bool on);
  bool SetLogOutput(const std::string& name, ToviOutputDirection direction, bool on);
  bool GetAllModuleInfo(ToviModuleMasks& items);
  bool SetAllModuleInfo(const std::bitset<32>& level, const std::bitset<32>& output,
                        bool bUseDebugDefault);

  // Debug engine.
  bool RegDebugEngine(ToviDebugEngine* engine);
  bool UnRegDebugEngine(ToviDebugEngine* engine);
  ToviDebugEngine* GetDebugEngine();

  // Tracing.
  bool Trace(const std::string& subModule, ToviLogLevel level, const char* text,
             const AsnType* asn, bool bPrint, bool bLog);
  bool AppTrace(const std::string& subModule, ToviLogLevel level, const char* text,
                const AsnType* asn, bool bPrint, bool bLog, const std::string& appName);
  void Printf(ToviLogLevel level, const char* format, ...) TOVI_PRINTF_LIKE(3, 4);
  void Printf(ToviLogLevel level, const ToviInterString& subModule, const char* format, ...)
      TOVI_PRINTF_LIKE(4, 5);
  void Printf(const char* format, ...) TOVI_PRINTF_LIKE(2, 3);

  // The singleton. Read without a lock on the fast path of Instance(), so it
  // is published with a release store once the manager is fully built.
  static std::atomic<ToviDebugMgr*> m_pInstance;

private:
  ToviDebugMgr();
  ToviDebugMgr(const ToviDebugMgr&) = delete;
  ToviDebugMgr& operator=(const ToviDebugMgr&) = delete;

  static ACE_Recursive_Thread_Mutex m_InstanceLock;

  // Printf's road: the writer formats the call's arguments when it can give
  // the same bytes, else they are formatted here and traced as text. False
  // when the text could not be formatted (or is empty, or too long).
  bool TraceFormatted(const std::string& subModule, ToviLogLevel level, const char* format,
                      va_list args);

  // The manager's parts, each holding its own state and lock; made with the
  // manager, freed with it.
  EngineSlot* const m_pEngine;
  SubModuleRegistry* const m_pRegistry;
  PrintfDefaults* const m_pDefaults;
  WriterTable* const m_pWriters;

  // One Init at a time. What a successful Init sets is stored before
  // m_bInit, which is set last with release semantics: the trace path reads
  // these without a lock once it has seen m_bInit.
  ACE_Thread_Mutex m_InitLock;
  std::atomic<bool> m_bInit;
  std::atomic<bool> m_bTraceOff;
  // Sends what the writers write to a syslog collector; null when off.
  SyslogForwarder* m_pSyslogForwarder;
  // Writes a crash report on a fatal signal; null when off.
  CrashReporter* m_pCrashReporter;
  // Follows the debug file while the process runs; null when off.
  ConfigWatch* m_pConfigWatch;
};

#endif
