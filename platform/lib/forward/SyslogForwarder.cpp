// SyslogForwarder.cpp - the backlog, the connection and its faults.
#include "forward/SyslogForwarder.h"

#include <cstdlib>

#include <ace/Guard_T.h>
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
    : m_Settings(settings),
      m_Notify(std::move(notify)),
      m_Wake(m_Lock),
      m_Socket(settings.host, settings.port, settings.tcp, kNetworkWaitMs) {
  m_bStarted = toviport::StartThread(&SyslogForwarder::Run, this, m_hThread);
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
  if (m_bStarted) toviport::JoinThread(m_hThread);
  m_Socket.Close();
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
  const toviport::CollectorSocket::OpenResult opened = m_Socket.Open();
  if (opened == toviport::CollectorSocket::OpenResult::Open) {
    m_nBackOffMs = 0;
    m_strLastError.clear();
    return true;
  }
  const std::string error =
      opened == toviport::CollectorSocket::OpenResult::Unresolved
          ? "cannot resolve syslog collector host \"" + m_Settings.host + "\""
          : "cannot reach syslog collector " + m_Settings.host + ":" +
                std::to_string(m_Settings.port);
  // Said once per kind of failure, not once per attempt.
  if (error != m_strLastError) Notify(error);
  m_strLastError = error;
  return false;
}

bool SyslogForwarder::Send(const std::string& chunk, std::size_t& offset) {
  if (m_Settings.tcp) {
    if (m_Socket.PeerClosed()) return false;
    std::size_t sent = 0;
    const bool whole = m_Socket.SendStream(chunk.data() + offset, chunk.size() - offset, sent);
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
    if (!m_Socket.SendDatagram(chunk.data() + begin, length)) return false;
  }
  return true;
}

void SyslogForwarder::BackOff() {
  m_nBackOffMs = m_nBackOffMs == 0 ? kFirstBackOffMs : m_nBackOffMs * 2;
  if (m_nBackOffMs > kLastBackOffMs) m_nBackOffMs = kLastBackOffMs;
  const int64_t end = toviport::SteadyMs() + m_nBackOffMs;
  // New messages do not cut the pause short; only a stop does. The wait's
  // deadline is on the wall clock, so it is taken afresh from the steady one
  // each time: a clock step must neither end the pause nor spin it.
  ACE_Guard<ACE_Thread_Mutex> guard(m_Lock);
  for (int64_t left = end - toviport::SteadyMs(); !m_bStopping && left > 0;
       left = end - toviport::SteadyMs()) {
    ACE_Time_Value until = toviport::DeadlineAfterMs(static_cast<unsigned>(left));
    m_Wake.wait(&until);
  }
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
      m_Socket.Close();
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
