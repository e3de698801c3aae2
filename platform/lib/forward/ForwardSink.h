// ForwardSink.h - one writer's share of forwarding: the records it wrote
// into its file, as framed syslog messages, handed to the process's
// forwarder after each batch.
#ifndef TOVI_FORWARD_FORWARDSINK_H
#define TOVI_FORWARD_FORWARDSINK_H

#include <cstddef>
#include <string>

#include "logwriter/RecordSink.h"

class SyslogForwarder;

class ForwardSink final : public RecordSink {
public:
  // appName names the writer in every message; forwarder must outlive the
  // sink.
  ForwardSink(SyslogForwarder& forwarder, std::string appName);

  void Add(const SinkRecord& record) override;
  void HandOver() override;

private:
  SyslogForwarder& m_forwarder;
  const std::string m_appName;
  // " HOSTNAME APP-NAME PROCID ", made at the first message.
  std::string m_identity;
  std::string m_batch;
  std::size_t m_messages = 0;
  // Records not formatted because the forwarder's backlog was full.
  std::size_t m_skipped = 0;
};

#endif
