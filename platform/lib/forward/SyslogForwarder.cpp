// SyslogForwarder.cpp - the backlog, the connection and its faults.
#include "forward/SyslogForwarder.h"

#include <cstdlib>

#include <ace/Time_Value.h>

#include "forward/SyslogMessage.h"
#include "port/ToviPort.h"

namespace {
constexpr unsigned kFirstBackOffMs = 100;
constexpr unsigned kLastBackOffMs = 5000;
// A connection attempt, and one message's send, wait at most this long.
constexpr unsigned kNetworkWaitMs = 1000;
// What Stop allows for sending the rest.
constexpr int64_t kStopWindowMs = 1000;
constexpr long kMinBufferKb = 64;
constexpr long kMaxBufferKb = 65536;
}  // namespace

bool SyslogForwarder::Parse(const std::string& target, const std::string& facility,
                            const std::string& bufferKb, Settings& out, std::string& why) {
  out = Settings();
  if (!facility.empty()) {
    out.facility = syslogmessage::FacilityCode(facility);
    if (out.facility < 0) {
      why = "syslog_facility \"" + facility + "\" is not local0 to local7 or user";
      return false;
    }
  }
  if (!bufferKb.empty()) {
    char* end = nullptr;
    const long kb = std::strtol(bufferKb.c_str(), &end, 10);
    if (*end != '\0' || kb < kMinBufferKb || kb > kMaxBufferKb) {
      why = "syslog_buffer_kb \"" + bufferKb + "\" is not a number from 64 to 65536";
      return false;
    }
    out.backlogBytes = static_cast<std::size_t>(kb) * 1024;
  }
  if (target.empty()) return true;
  const std::size_t scheme = target.find("://");
  const std::string kind = scheme == std::string::npos ? "" : target.substr(0, scheme);
  const std::size_t colon = target.rfind(':');
  const bool shaped = (kind == "tcp" || kind == "udp" || kind == "tls") && colon > scheme + 3;
  char* end = nullptr;
  const long port = shaped ? std::strtol(target.c_str() + colon + 1, &end, 10) : 0;
  if (!shaped || end == target.c_str() + colon + 1 || *end != '\0' || port < 1 || port > 65535) {
    why = "syslog_target \"" + target + "\" is not tcp://HOST:PORT, tls://HOST:PORT or udp://HOST:PORT";
    return false;
  }
  out.transport = kind == "tcp"   ? toviport::Transport::kTcp
                  : kind == "tls" ? toviport::Transport::kTls
                                  : toviport::Transport::kUdp;
  out.host = target.substr(scheme + 3, colon - scheme - 3);
  out.port = static_cast<unsigned short>(port);
  return true;
}

bool SyslogForwarder::ParseTls(const std::string& caFile, const std::string& certFile,
                               const std::string& keyFile, Settings& out, std::string& why) {
  if (out.transport != toviport::Transport::kTls) return true;
  for (const auto& [key, file] : {std::pair<const char*, const std::string*>{"syslog_tls_ca_file", &caFile},
                                  {"syslog_tls_cert_file", &certFile},
                                  {"syslog_tls_key_file", &keyFile}}) {
    if (!file->empty() && !toviport::Readable(*file)) {
      why = std::string(key) + " \"" + *file + "\" cannot be read";
      return false;
    }
  }
  if (certFile.empty() != keyFile.empty()) {
    why = "syslog_tls_cert_file and syslog_tls_key_file go together";
    return false;
  }
  out.tls = {caFile, certFile, keyFile};
  return true;
}

SyslogForwarder::SyslogForwarder(const Settings& settings,
                                 std::function<void(const std::string&)> notify)
    : m_settings(settings),
      m_wake(m_lock),
      m_notify(std::move(notify)),
      m_socket(settings.host, settings.port, settings.transport, kNetworkWaitMs, settings.tls) {
  m_started = toviport::StartThread(&SyslogForwarder::Run, this, m_thread);
}

SyslogForwarder::~SyslogForwarder() {
  DisableNotify();
  Stop();
}

void SyslogForwarder::Submit(std::string& framed, std::size_t count) {
  if (count == 0) return;
  toviport::MutexLock guard(m_lock);
  if (!guard) {
    framed.clear();
    return;
  }
  // The frames that fit are kept, in order; the rest are counted.
  const std::size_t room = m_started && m_backlogBytes < m_settings.backlogBytes
                               ? m_settings.backlogBytes - m_backlogBytes
                               : 0;
  std::size_t fits = 0;
  std::size_t kept = 0;
  for (std::size_t begin, length, next;
       kept < count && syslogmessage::NextFrame(framed, fits, begin, length, next) && next <= room;
       fits = next) {
    ++kept;
  }
  if (kept < count) {
    m_dropped += count - kept;
    m_accepting.store(false, std::memory_order_relaxed);
    framed.resize(fits);
  }
  if (kept > 0) {
    m_backlogBytes += framed.size();
    m_backlog.push_back({std::move(framed), kept});
  }
  framed.clear();
  m_wake.Signal();
}

void SyslogForwarder::Skipped(std::size_t count) {
  if (count == 0) return;
  toviport::MutexLock guard(m_lock);
  if (!guard) return;
  m_dropped += count;
  m_wake.Signal();
}

void SyslogForwarder::Stop() {
  {
    toviport::MutexLock guard(m_lock);
    if (!guard || m_stopping) return;
    m_stopping = true;
    m_stopDeadlineMs = toviport::SteadyMs() + kStopWindowMs;
    m_wake.Signal();
  }
  if (m_started) toviport::JoinThread(m_thread);
  m_threadRole.Claim();
  m_socket.Close();
}

void* SyslogForwarder::Run(void* arg) {
  SyslogForwarder* forwarder = static_cast<SyslogForwarder*>(arg);
  forwarder->m_threadRole.Claim();
  // A TLS write to a collector that went away raises SIGPIPE on this
  // thread; held pending here, it never ends the process.
  toviport::BlockPipeSignal();
  forwarder->Loop();
  return nullptr;
}

void SyslogForwarder::DisableNotify() {
  toviport::MutexLock guard(m_notifyLock);
  if (!guard) return;
  m_notifyOff = true;
}

void SyslogForwarder::Notify(const std::string& line) {
  toviport::MutexLock guard(m_notifyLock);
  if (!guard) return;
  if (!m_notifyOff && m_notify) m_notify(line);
}

bool SyslogForwarder::Connect() {
  m_threadRole.AssertHeld();
  const toviport::CollectorSocket::OpenResult opened = m_socket.Open();
  if (opened == toviport::CollectorSocket::OpenResult::Open) {
    m_backOffMs = 0;
    m_lastError.clear();
    return true;
  }
  const std::string where = m_settings.host + ":" + std::to_string(m_settings.port);
  std::string error;
  if (opened == toviport::CollectorSocket::OpenResult::Unresolved) {
    error = "cannot resolve syslog collector host \"" + m_settings.host + "\"";
  } else if (opened == toviport::CollectorSocket::OpenResult::Refused) {
    error = "no TLS session with syslog collector " + where + ": " + m_socket.Why();
  } else {
    error = "cannot reach syslog collector " + where;
  }
  // Said once per kind of failure, not once per attempt.
  if (error != m_lastError) Notify(error);
  m_lastError = error;
  return false;
}

bool SyslogForwarder::Send(const std::string& chunk, std::size_t& offset) {
  m_threadRole.AssertHeld();
  if (m_settings.transport != toviport::Transport::kUdp) {
    if (m_socket.PeerClosed()) return false;
    std::size_t sent = 0;
    const bool whole = m_socket.SendStream(chunk.data() + offset, chunk.size() - offset, sent);
    // A frame cut by the failure goes again, whole, on the next connection.
    const std::size_t reached = offset + sent;
    for (std::size_t begin, length, next; offset < reached;) {
      if (!syslogmessage::NextFrame(chunk, offset, begin, length, next) || next > reached) break;
      offset = next;
    }
    return whole;
  }
  for (std::size_t begin, length, next;
       offset < chunk.size() && syslogmessage::NextFrame(chunk, offset, begin, length, next);
       offset = next) {
    if (!m_socket.SendDatagram(chunk.data() + begin, length)) return false;
  }
  return true;
}

void SyslogForwarder::BackOff() {
  m_threadRole.AssertHeld();
  m_backOffMs = m_backOffMs == 0 ? kFirstBackOffMs : m_backOffMs * 2;
  if (m_backOffMs > kLastBackOffMs) m_backOffMs = kLastBackOffMs;
  const int64_t end = toviport::SteadyMs() + m_backOffMs;
  // New messages do not cut the pause short; only a stop does. The wait's
  // deadline is on the wall clock, so it is taken afresh from the steady one
  // each time: a clock step must neither end the pause nor spin it.
  toviport::MutexLock guard(m_lock);
  if (!guard) return;
  for (int64_t left = end - toviport::SteadyMs(); !m_stopping && left > 0;
       left = end - toviport::SteadyMs()) {
    ACE_Time_Value until = toviport::DeadlineAfterMs(static_cast<unsigned>(left));
    m_wake.Wait(m_lock, &until);
  }
}

bool SyslogForwarder::TakeNext(Chunk& chunk, uint64_t& dropped) {
  toviport::MutexLock guard(m_lock);
  if (!guard) return false;
  while (m_backlog.empty() && m_dropped == 0 && !m_stopping) m_wake.Wait(m_lock);
  if (m_stopping && (m_backlog.empty() || toviport::SteadyMs() > m_stopDeadlineMs)) return false;
  if (!m_backlog.empty()) {
    chunk = std::move(m_backlog.front());
    m_backlog.pop_front();
  }
  // Room again once half the bound is free, not for every message.
  if (m_backlogBytes - chunk.framed.size() < m_settings.backlogBytes / 2) {
    m_accepting.store(true, std::memory_order_relaxed);
  }
  dropped = m_dropped;
  return true;
}

bool SyslogForwarder::Settle(Chunk& chunk, std::size_t offset, bool sent) {
  toviport::MutexLock guard(m_lock);
  if (!guard) return false;
  if (sent) {
    m_backlogBytes -= chunk.framed.size();
  } else if (!chunk.framed.empty()) {
    // Back at the head, without what went out whole.
    m_backlogBytes -= offset;
    chunk.framed.erase(0, offset);
    m_backlog.push_front(std::move(chunk));
  }
  // Stopping: a collector that fails now gets no further tries.
  return sent || !m_stopping;
}

void SyslogForwarder::ForgetDropped(uint64_t dropped) {
  toviport::MutexLock guard(m_lock);
  if (!guard) return;
  m_dropped -= dropped;
}

void SyslogForwarder::Loop() {
  m_threadRole.AssertHeld();
  for (;;) {
    Chunk chunk;
    uint64_t dropped = 0;
    if (!TakeNext(chunk, dropped)) return;
    std::size_t offset = 0;
    const bool sent = Connect() && Send(chunk.framed, offset);
    if (!Settle(chunk, offset, sent)) return;
    if (!sent) {
      m_socket.Close();
      BackOff();
      continue;
    }
    if (dropped == 0) continue;
    ForgetDropped(dropped);
    // Into the main log file, and from there to the collector in its turn.
    Notify(std::to_string(dropped) + " records dropped while the collector was unreachable");
  }
}
