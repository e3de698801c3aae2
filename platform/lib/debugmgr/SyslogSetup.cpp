// SyslogSetup.cpp - turning the forwarding keys of the configuration into a
// running forwarder, at Init.
//
// A value that cannot be used never stops Init: forwarding stays off and the
// main log file says why, where an operator looks first.
#include <new>
#include <string>

#include "ToviDebugMgr.h"
#include "debugmgr/DebugConfig.h"
#include "logwriter/SyslogForwarder.h"
#include "logwriter/ToviLogWriter.h"

void ToviDebugMgr::StartSyslogForwarding(ToviLogWriter* mainWriter) {
  const SyslogKeys keys = ReadSyslogKeys(m_strDebugCfgFile);
  SyslogForwarder::Settings settings;
  std::string why;
  const bool usable = SyslogForwarder::Parse(keys.target, keys.facility, keys.bufferKb, settings, why);
  if (!usable) {
    const std::string line = "syslog forwarding off: " + why;
    mainWriter->AddLog("syslog", LEVEL_WARN, line.c_str(), nullptr, false, true);
    return;
  }
  if (settings.host.empty()) return;
  settings.appName = m_strInitName;
  m_pSyslogForwarder = new (std::nothrow) SyslogForwarder(
      settings, [mainWriter](const std::string& line) {
        mainWriter->AddLog("syslog", LEVEL_WARN, line.c_str(), nullptr, false, true);
      });
  if (m_pSyslogForwarder != nullptr) mainWriter->SetForwarder(m_pSyslogForwarder);
}
