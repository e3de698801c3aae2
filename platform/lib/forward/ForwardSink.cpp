// ForwardSink.cpp - framing a writer's records for the forwarder.
#include "forward/ForwardSink.h"

#include <utility>

#include "forward/SyslogForwarder.h"
#include "forward/SyslogMessage.h"

ForwardSink::ForwardSink(SyslogForwarder& forwarder, std::string appName)
    : m_forwarder(forwarder), m_appName(std::move(appName)) {}

void ForwardSink::Add(const SinkRecord& record) {
  // What reaches the file is what is forwarded.
  if (!record.toFile) return;
  // A full backlog would only drop the message: it is counted unformatted.
  if (!m_forwarder.Accepting()) {
    ++m_skipped;
    return;
  }
  try {
    if (m_identity.empty()) m_identity = syslogmessage::Identity(m_appName);
    syslogmessage::AppendFramed(record.record, record.asn, m_identity, m_forwarder.Facility(),
                                m_batch);
    ++m_messages;
  } catch (...) {
    // No memory for the message: the file has the record all the same.
  }
}

void ForwardSink::HandOver() {
  if (m_messages == 0 && m_skipped == 0) return;
  m_forwarder.Submit(m_batch, m_messages);
  m_forwarder.Skipped(m_skipped);
  m_batch.clear();
  m_messages = 0;
  m_skipped = 0;
}
