// Init.cpp - configuring the manager once per process.
//
// The whole run holds the registry lock for writing, so no registry or
// engine operation interleaves with it and a second Init waits, then finds
// the manager initialised. The initialised flag is set last, after the main
// writer is published, because the trace path reads both without a lock.
#include <map>
#include <new>
#include <string>

#include <ace/Guard_T.h>

#include "ToviBaseUtil.h"
#include "ToviDebugMgr.h"
#include "debugmgr/CallGate.h"
#include "debugmgr/ConfigKeys.h"
#include "debugmgr/DebugConfig.h"
#include "debugmgr/NameRules.h"
#include "logwriter/ToviLogWriter.h"
#include "port/ToviPort.h"

namespace {
// A configured mask above 4369 ("1111" read as hexadecimal digits) keeps only
// its four lowest bits; 4369 and below stay whole.
std::bitset<32> BoundMask(const std::bitset<32>& mask) {
  const unsigned long value = mask.to_ulong();
  return std::bitset<32>(value > 4369 ? (value & 15) : value);
}

// The Init name starts the names of the main writer's files: whether a path
// of that name happens to exist says nothing about where they would land.
bool InitNameUsable(const std::string& logDir, const std::string& name) {
  return !EscapesLogDirectory(name) && PrefixFitsFileNames(logDir, name);
}
}  // namespace

bool ToviDebugMgr::Init(const std::string& strName, const std::string& strDebugCfgFile,
                        const std::string& strLogPath, const std::string& strHeader,
                        bool bIgnored, bool bTraceOff) {
  (void)bIgnored;
  const callgate::Pass pass(this);
  if (!pass) return false;
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_RegistryLock);
  if (!guard.locked()) return false;
  if (m_bInit.load(std::memory_order_relaxed)) return true;

  m_bTraceOff.store(bTraceOff, std::memory_order_release);
  if (strName.empty()) return false;
  m_strInitName = strName;

  if (!strLogPath.empty()) toviport::MakeDirTree(strLogPath.c_str());
  const std::string logDir = strLogPath.empty() ? ToviGetDefaultLogPath() : strLogPath;
  if (!strDebugCfgFile.empty()) m_strDebugCfgFile = strDebugCfgFile;

  int filt = 0;
  int maxFiles = 0;
  int fileSize = 0;
  int zipNum = 0;
  int zipInclude = 0;
  ToviModuleMasks modules;
  GetCfgItem(strDebugCfgFile, filt, maxFiles, fileSize, zipNum, zipInclude, modules);

  using configkeys::InRangeOrFallback;
  zipNum = InRangeOrFallback(zipNum, configkeys::kEachProcessMaxZipNum);
  if (strName == "TOVIMrb_p2_") zipNum *= 5;
  m_nFiltLogBufSize = InRangeOrFallback(filt, configkeys::kFiltLogBufSize);
  m_nMaxFileNum = InRangeOrFallback(maxFiles, configkeys::kMaxFileNum);
  m_nEachFileMaxSize = InRangeOrFallback(fileSize, configkeys::kEachFileMaxSize);
  m_nEachProcessMaxZipNum = zipNum;
  m_nZipFileIncludeFileNum = InRangeOrFallback(zipInclude, configkeys::kZipFileIncludeFileNum);

  for (const auto& module : modules) {
    RegSubModuleInfo_i(module.first, BoundMask(module.second.first),
                       BoundMask(module.second.second), false);
  }

  if (bTraceOff) {
    m_bInit.store(true, std::memory_order_release);
    return true;
  }
  if (!InitNameUsable(logDir, strName)) return false;

  ToviLogWriter* writer =
      new (std::nothrow) ToviLogWriter(WriterOptions(logDir, strName, strHeader));
  if (writer == nullptr) return false;
  {
    ACE_Write_Guard<ACE_RW_Thread_Mutex> tableGuard(m_WriterTableLock);
    if (!tableGuard.locked()) {
      delete writer;
      return false;
    }
    m_WriterTable[m_strInitName] = writer;
  }
  m_pMainWriter.store(writer, std::memory_order_release);
  m_pSyslogForwarder = StartForwarding(ReadSyslogKeys(m_strDebugCfgFile), m_strInitName, *writer);
  m_bInit.store(true, std::memory_order_release);
  return true;
}

LogWriterOptions ToviDebugMgr::WriterOptions(const std::string& dir, const std::string& prefix,
                                             const std::string& header) const {
  LogWriterOptions options;
  options.logPath = dir;
  options.prefix = prefix;
  options.header = header;
  options.heldBackRecords = static_cast<unsigned>(m_nFiltLogBufSize);
  options.maxFileBytes = static_cast<unsigned>(m_nEachFileMaxSize);
  options.archivesKept = m_nEachProcessMaxZipNum;
  return options;
}
