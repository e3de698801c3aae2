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
#include <cstdint>
#include <map>
#include <string>

#include <ace/RW_Thread_Mutex.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Thread_Mutex.h>

#include "ToviExport.h"
#include "ToviLogLevel.h"

class AsnType;
class ToviDebugEngine;
class ToviInterString;
class ToviLogWriter;
struct LogWriterOptions;
class SubModuleIndex;
class SubModuleInfo;
class SyslogForwarder;

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

  void GetCfgItem(const std::string& strDebugCfgFile, int& nFiltLogBufSize, int& nMaxFileNum,
                  int& nEachFileMaxSize, int& nEachProcessMaxZipNum,
                  int& nZipFileIncludeFileNum,
                  ToviModuleMasks& items);
  bool RegSubModuleInfo_i(const std::string& name, const std::bitset<32>& level,
                          const std::bitset<32>& output, bool bUseDebugDefault);
  bool GetSubModuleInfo_i(const std::string& name, std::bitset<32>& level,
                          std::bitset<32>& output);
  std::string DefSubModuleName();
  // What every writer of this manager is built with.
  LogWriterOptions WriterOptions(const std::string& dir, const std::string& prefix,
                                 const std::string& header) const;

  static ACE_Recursive_Thread_Mutex m_InstanceLock;

  // The flags and pointers that the trace path reads without a lock are
  // atomics: Init stores them with release semantics and sets m_bInit last.
  std::atomic<bool> m_bInit;
  int32_t m_nFiltLogBufSize;
  int32_t m_nMaxFileNum;
  int32_t m_nEachFileMaxSize;
  int32_t m_nEachProcessMaxZipNum;
  int32_t m_nZipFileIncludeFileNum;
  std::atomic<bool> m_bTraceOff;
  std::string m_strDebugCfgFile;
  std::atomic<ToviDebugEngine*> m_pDebugEngine;
  std::atomic<ToviLogWriter*> m_pMainWriter;
  ACE_RW_Thread_Mutex m_RegistryLock;
  std::map<std::string, SubModuleInfo*> m_SubModuleMap;
  // The same entries, for lookups that take no lock.
  SubModuleIndex* m_pSubModuleIndex;
  // The Printf defaults: set from any thread while others trace, so the name
  // is read and written under its own lock and the level is an atomic.
  std::string m_strDefSubModuleName;
  std::atomic<ToviLogLevel> m_nDefLogLevel;
  ACE_Thread_Mutex m_DefaultsLock;
  std::map<std::string, ToviLogWriter*> m_WriterTable;
  ACE_RW_Thread_Mutex m_WriterTableLock;
  std::string m_strInitName;
  // Sends what the writers write to a syslog collector; null when off.
  SyslogForwarder* m_pSyslogForwarder;
};

#endif
