// CollectorSocket.h - the network end of forwarding: one connection to a
// syslog collector, over TCP or UDP.
//
// Kept in the platform layer with the other system calls, so that the
// forwarder above it decides only what to send and when to try again.
#ifndef TOVI_PORT_COLLECTORSOCKET_H
#define TOVI_PORT_COLLECTORSOCKET_H

#include <cstddef>
#include <string>

#include <ace/INET_Addr.h>
#include <ace/SOCK_Dgram.h>
#include <ace/SOCK_Stream.h>

namespace toviport {

class CollectorSocket {
public:
  // waitMs bounds every connect and every stream send.
  CollectorSocket(const std::string& host, unsigned short port, bool tcp, unsigned waitMs);
  ~CollectorSocket() { Close(); }
  CollectorSocket(const CollectorSocket&) = delete;
  CollectorSocket& operator=(const CollectorSocket&) = delete;

  // Unresolved: the host name has no address (asked until it once has).
  enum class OpenResult { Open, Unresolved, Unreachable };
  OpenResult Open();
  bool IsOpen() const { return m_open; }
  void Close();

  // TCP: true when the collector has closed its end. Without this look, the
  // first send after its death would seem to succeed and be lost.
  bool PeerClosed();
  // TCP: sends size bytes; sent says how many got through. Never raises
  // SIGPIPE: a collector that went away must not end the process.
  bool SendStream(const char* data, std::size_t size, std::size_t& sent);
  // UDP: one datagram, whole.
  bool SendDatagram(const char* data, std::size_t size);

private:
  const std::string m_host;
  const unsigned short m_port;
  const bool m_tcp;
  const unsigned m_waitMs;
  ACE_INET_Addr m_address;
  bool m_resolved = false;
  bool m_open = false;
  ACE_SOCK_Stream m_stream;
  ACE_SOCK_Dgram m_dgram;
};

}  // namespace toviport

#endif
