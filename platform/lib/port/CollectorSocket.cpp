// CollectorSocket.cpp - ACE's sockets, as the forwarder uses them.
#include "port/CollectorSocket.h"

#include <cerrno>

#include <sys/socket.h>

#include <ace/SOCK_Connector.h>
#include <ace/Time_Value.h>

namespace toviport {

namespace {
ACE_Time_Value Wait(unsigned milliseconds) {
  ACE_Time_Value wait;
  wait.msec(static_cast<long>(milliseconds));
  return wait;
}
}  // namespace

CollectorSocket::CollectorSocket(const std::string& host, unsigned short port, bool tcp,
                                 unsigned waitMs)
    : m_host(host), m_port(port), m_tcp(tcp), m_waitMs(waitMs) {}

CollectorSocket::OpenResult CollectorSocket::Open() {
  if (m_open) return OpenResult::Open;
  if (!m_resolved && m_address.set(m_port, m_host.c_str()) != 0) return OpenResult::Unresolved;
  m_resolved = true;
  if (m_tcp) {
    ACE_SOCK_Connector connector;
    const ACE_Time_Value wait = Wait(m_waitMs);
    m_open = connector.connect(m_stream, m_address, &wait) == 0;
  } else {
    const ACE_INET_Addr any(static_cast<unsigned short>(0), "0.0.0.0", m_address.get_type());
    m_open = m_dgram.open(any, m_address.get_type()) == 0;
  }
  return m_open ? OpenResult::Open : OpenResult::Unreachable;
}

void CollectorSocket::Close() {
  if (!m_open) return;
  if (m_tcp) {
    m_stream.close();
  } else {
    m_dgram.close();
  }
  m_open = false;
}

bool CollectorSocket::PeerClosed() {
  char byte;
  const ssize_t n = m_stream.recv(&byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK);
}

bool CollectorSocket::SendStream(const char* data, std::size_t size, std::size_t& sent) {
  sent = 0;
  const ACE_Time_Value wait = Wait(m_waitMs);
  return m_stream.send_n(data, size, MSG_NOSIGNAL, &wait, &sent) == static_cast<ssize_t>(size);
}

bool CollectorSocket::SendDatagram(const char* data, std::size_t size) {
  return m_dgram.send(data, size, m_address) == static_cast<ssize_t>(size);
}

}  // namespace toviport
