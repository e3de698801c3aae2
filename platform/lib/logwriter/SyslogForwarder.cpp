// SyslogForwarder.cpp - the backlog, the connection and its faults.
#include "logwriter/SyslogForwarder.h"

#include <cerrno>
#include <cstdlib>

#include <ace/Guard_T.h>
#include <ace/SOCK_Connector.h>
#include <ace/Thread.h>
#include <ace/Time_Value.h>

#include "logwriter/SyslogMessage.h"
#include "port/ToviPort.h"

namespace {
constexpr unsigned kFirstBackOffMs = 100;
constexpr unsigned kLastBackOffMs = 5000;
// A connection attempt, and one message's send, wait at most this long.
const ACE_Time_Value kNetworkWait(1, 0);
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
  const bool shaped = (kind == "tcp" || kind == "udp") && colon > scheme + 3;
  char* end = nullptr;
  const long port = shaped ? std::strtol(target.c_str() + colon + 1, &end, 10) : 0;
  if (!shaped || end == target.c_str() + colon + 1 || *end != '\0' || port < 1 || port > 65535) {
    why = "syslog_target \"" + target + "\" is not tcp://HOST:PORT or udp://HOST:PORT";
    return false;
  }
  out.tcp = kind == "tcp";
  out.host = target.substr(scheme + 3, colon - scheme - 3);
  out.port = static_cast<unsigned short>(port);
  return true;
}

SyslogForwarder::SyslogForwarder(const Settings& settings,
                                 std::function<void(const std::string&)> notify)
    : m_Settings(settings), m_Notify(std::move(notify)), m_Wake(m_Lock) {
  m_bStarted = ACE_Thread::spawn(&SyslogForwarder::Run, this, THR_NEW_LWP | THR_JOINABLE, nullptr,
                                 &m_hThread, 0) != -1;
}

SyslogForwarder::~SyslogForwarder() {
  DisableNotify();
  Stop();
}

void SyslogForwarder::Submit(std::string& framed, std::size_t count) {
  if (count == 0) return;
  ACE_Guard<ACE_Thread_Mutex> guard(m_Lock);
  // The frames that fit are kept, in order; the rest are counted.
  const std::size_t room = m_bStarted && m_nBacklogBytes < m_Settings.backlogBytes
                               ? m_Settings.backlogBytes - m_nBacklogBytes
                               : 0;
  std::size_t fits = 0;
  std::size_t kept = 0;
  for (std::size_t begin, length, next;
       kept < count && syslogmessage::NextFrame(framed, fits, begin, length, next) && next <= room;
       fits = next) {
    ++kept;
  }
  if (kept < count) {
    m_nDropped += count - kept;
    m_bAccepting.store(false, std::memory_order_relaxed);
    framed.resize(fits);
  }
  if (kept > 0) {
    m_nBacklogBytes += framed.size();
    m_Backlog.push_back({std::move(framed), kept});
  }
  framed.clear();
  m_Wake.signal();
}

void SyslogForwarder::Skipped(std::size_t count) {
  if (count == 0) return;
  ACE_Guard<ACE_Thread_Mutex> guard(m_Lock);
  m_nDropped += count;
  m_Wake.signal();
}

void SyslogForwarder::Stop() {
  {
    ACE_Guard<ACE_Thread_Mutex> guard(m_Lock);
    if (m_bStopping) return;
    m_bStopping = true;
    m_nStopDeadlineMs = toviport::SteadyMs() + kStopWindowMs;
    m_Wake.signal();
  }
  if (m_bStarted) ACE_Thread::join(m_hThread, nullptr);
  Disconnect();
}

void* SyslogForwarder::Run(void* arg) {
  static_cast<SyslogForwarder*>(arg)->Loop();
  return nullptr;
}

void SyslogForwarder::DisableNotify() {
  ACE_Guard<ACE_Thread_Mutex> guard(m_NotifyLock);
  m_bNotifyOff = true;
}

void SyslogForwarder::Notify(const std::string& line) {
  ACE_Guard<ACE_Thread_Mutex> guard(m_NotifyLock);
  if (!m_bNotifyOff && m_Notify) m_Notify(line);
}

bool SyslogForwarder::Connect() {
  if (m_bConnected) return true;
  std::string error;
  if (!m_bResolved && m_Address.set(m_Settings.port, m_Settings.host.c_str()) != 0) {
    error = "cannot resolve syslog collector host \"" + m_Settings.host + "\"";
  } else {
    m_bResolved = true;
    if (m_Settings.tcp) {
      ACE_SOCK_Connector connector;
      if (connector.connect(m_Stream, m_Address, &kNetworkWait) == 0) m_bConnected = true;
    } else {
      const ACE_INET_Addr any(static_cast<unsigned short>(0), "0.0.0.0", m_Address.get_type());
      if (m_Dgram.open(any, m_Address.get_type()) == 0) m_bConnected = true;
    }
    if (!m_bConnected) error = "cannot reach syslog collector " + m_Settings.host + ":" +
                               std::to_string(m_Settings.port);
  }
  if (m_bConnected) {
    m_nBackOffMs = 0;
    m_strLastError.clear();
    return true;
  }
  // Said once per kind of failure, not once per attempt.
  if (error != m_strLastError) Notify(error);
  m_strLastError = error;
  return false;
}

void SyslogForwarder::Disconnect() {
  if (!m_bConnected) return;
  if (m_Settings.tcp) {
    m_Stream.close();
  } else {
    m_Dgram.close();
  }
  m_bConnected = false;
}

bool SyslogForwarder::PeerClosed() {
  // A collector that died has closed its end; without this look, the first
  // send after its death would seem to succeed and its messages be lost.
  char byte;
  const ssize_t n = m_Stream.recv(&byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK);
}

bool SyslogForwarder::Send(const std::string& chunk, std::size_t& offset) {
  if (m_Settings.tcp) {
    if (PeerClosed()) return false;
    std::size_t sent = 0;
    // MSG_NOSIGNAL: a collector that went away must not end the process.
    const bool whole = m_Stream.send_n(chunk.data() + offset, chunk.size() - offset, MSG_NOSIGNAL,
                                       &kNetworkWait, &sent) ==
                       static_cast<ssize_t>(chunk.size() - offset);
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
    if (m_Dgram.send(chunk.data() + begin, length, m_Address) != static_cast<ssize_t>(length)) {
      return false;
    }
  }
  return true;
}

void SyslogForwarder::BackOff() {
  m_nBackOffMs = m_nBackOffMs == 0 ? kFirstBackOffMs : m_nBackOffMs * 2;
  if (m_nBackOffMs > kLastBackOffMs) m_nBackOffMs = kLastBackOffMs;
  ACE_Time_Value until = ACE_OS::gettimeofday();
  until += ACE_Time_Value(0, static_cast<suseconds_t>(m_nBackOffMs) * 1000);
  // New messages do not cut the pause short; only a stop does.
  ACE_Guard<ACE_Thread_Mutex> guard(m_Lock);
  while (!m_bStopping && ACE_OS::gettimeofday() < until) m_Wake.wait(&until);
}

void SyslogForwarder::Loop() {
  for (;;) {
    Chunk chunk;
    uint64_t dropped = 0;
    {
      ACE_Guard<ACE_Thread_Mutex> guard(m_Lock);
      while (m_Backlog.empty() && m_nDropped == 0 && !m_bStopping) m_Wake.wait();
      if (m_bStopping && (m_Backlog.empty() || toviport::SteadyMs() > m_nStopDeadlineMs)) return;
      if (!m_Backlog.empty()) {
        chunk = std::move(m_Backlog.front());
        m_Backlog.pop_front();
      }
      // Room again once half the bound is free, not for every message.
      if (m_nBacklogBytes - chunk.framed.size() < m_Settings.backlogBytes / 2) {
        m_bAccepting.store(true, std::memory_order_relaxed);
      }
      dropped = m_nDropped;
    }
    std::size_t offset = 0;
    const bool sent = Connect() && Send(chunk.framed, offset);
    {
      ACE_Guard<ACE_Thread_Mutex> guard(m_Lock);
      if (sent) {
        m_nBacklogBytes -= chunk.framed.size();
      } else if (!chunk.framed.empty()) {
        // Back at the head, without what went out whole.
        m_nBacklogBytes -= offset;
        chunk.framed.erase(0, offset);
        m_Backlog.push_front(std::move(chunk));
      }
      // Stopping: a collector that fails now gets no further tries.
      if (!sent && m_bStopping) return;
    }
    if (!sent) {
      Disconnect();
      BackOff();
      continue;
    }
    if (dropped == 0) continue;
    {
      ACE_Guard<ACE_Thread_Mutex> guard(m_Lock);
      m_nDropped -= dropped;
    }
    // Into the main log file, and from there to the collector in its turn.
    Notify(std::to_string(dropped) + " records dropped while the collector was unreachable");
  }
}
