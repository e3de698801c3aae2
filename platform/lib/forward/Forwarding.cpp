// Forwarding.cpp - turning the forwarding keys of the configuration into a
// running forwarder, at Init.
//
// A value that cannot be used never stops Init: forwarding stays off and the
// main log file says why, where an operator looks first.
#include "forward/Forwarding.h"

#include <memory>
#include <new>

#include "forward/ForwardSink.h"
#include "forward/SyslogForwarder.h"
#include "logwriter/ToviLogWriter.h"

namespace {
// The forwarder's notices are records of the main writer, under this name.
const std::string kNoticeSubModule = "syslog";
}  // namespace

SyslogForwarder* StartForwarding(const SyslogKeys& keys, const std::string& appName,
                                 ToviLogWriter& mainWriter) {
  SyslogForwarder::Settings settings;
  std::string why;
  if (!SyslogForwarder::Parse(keys.target, keys.facility, keys.bufferKb, settings, why) ||
      !SyslogForwarder::ParseTls(keys.tlsCaFile, keys.tlsCertFile, keys.tlsKeyFile, settings, why)) {
    const std::string line = "syslog forwarding off: " + why;
    mainWriter.AddLog(kNoticeSubModule, LEVEL_WARN, line.c_str(), nullptr, false, true);
    return nullptr;
  }
  if (settings.host.empty()) return nullptr;
  settings.appName = appName;
  ToviLogWriter* notices = &mainWriter;
  SyslogForwarder* forwarder = new (std::nothrow)
      SyslogForwarder(settings, [notices](const std::string& line) {
        notices->AddLog(kNoticeSubModule, LEVEL_WARN, line.c_str(), nullptr, false, true);
      });
  ForwardFrom(mainWriter, forwarder);
  return forwarder;
}

void ForwardFrom(ToviLogWriter& writer, SyslogForwarder* forwarder) {
  if (forwarder == nullptr) return;
  try {
    writer.AttachSink(std::make_unique<ForwardSink>(*forwarder, writer.Prefix()));
  } catch (...) {
    // No memory for the sink: this writer's records stay in its files only.
  }
}
