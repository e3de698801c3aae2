// Forwarding.h - what the manager asks of the forwarding layer: a forwarder
// built from the configuration's keys, and writers whose records reach it.
#ifndef TOVI_FORWARD_FORWARDING_H
#define TOVI_FORWARD_FORWARDING_H

#include <string>

class SyslogForwarder;
class ToviLogWriter;

// The forwarding keys as written in the configuration; empty when absent.
struct SyslogKeys {
  std::string target;
  std::string facility;
  std::string bufferKb;
  // For tls:// targets: PEM files.
  std::string tlsCaFile;
  std::string tlsCertFile;
  std::string tlsKeyFile;
};

// Starts the process's forwarder as keys ask and forwards the main writer's
// records to it; its own notices go into the main log. Null when forwarding
// is off: keys name no target, or a value cannot be used (the main log then
// says why). The caller owns the forwarder and deletes it after the writers.
SyslogForwarder* StartForwarding(const SyslogKeys& keys, const std::string& appName,
                                 ToviLogWriter& mainWriter);

// From now on every record that writer puts into its file also goes to
// forwarder (null: nothing happens). Called once per writer.
void ForwardFrom(ToviLogWriter& writer, SyslogForwarder* forwarder);

#endif
