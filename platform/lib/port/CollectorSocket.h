// CollectorSocket.h - the network end of forwarding: one connection to a
// syslog collector, over TCP, TLS or UDP.
//
// TLS is TCP with every byte inside a session whose server has proved who
// it is: its certificate must chain to the configured CAs (loaded without
// the environment's defaults, so that no variable widens what is trusted),
// its name must match the host asked for (a DNS name or an IP address), and
// TLS 1.2 is the least taken. There is no way to turn that off. Nothing is
// sent before the handshake has passed.
//
// Kept in the platform layer with the other system calls, so that the
// forwarder above it decides only what to send and when to try again.
#ifndef TOVI_PORT_COLLECTORSOCKET_H
#define TOVI_PORT_COLLECTORSOCKET_H

#include <cstddef>
#include <memory>
#include <string>

#include <ace/INET_Addr.h>
#include <ace/SOCK_Dgram.h>
#include <ace/SOCK_Stream.h>

class ACE_SSL_Context;
class ACE_SSL_SOCK_Stream;

namespace toviport {

enum class Transport { kTcp, kUdp, kTls };

// PEM files; an empty caFile means the system's trust store, empty cert and
// key files mean no client certificate.
struct TlsFiles {
  std::string caFile;
  std::string certFile;
  std::string keyFile;
};

class CollectorSocket {
public:
  // waitMs bounds every connect (with its handshake) and every stream send.
  CollectorSocket(const std::string& host, unsigned short port, Transport transport,
                  unsigned waitMs, const TlsFiles& tls = TlsFiles());
  ~CollectorSocket();
  CollectorSocket(const CollectorSocket&) = delete;
  CollectorSocket& operator=(const CollectorSocket&) = delete;

  // Unresolved: the host name has no address (asked until it once has).
  // Refused: TLS only, the session could not be made; Why() says why.
  enum class OpenResult { Open, Unresolved, Unreachable, Refused };
  OpenResult Open();
  const std::string& Why() const { return m_why; }
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
  OpenResult OpenTls();
  // The TLS context, made once: false with m_why set when a file fails.
  bool MakeContext();

  const std::string m_host;
  const unsigned short m_port;
  const Transport m_transport;
  const unsigned m_waitMs;
  const TlsFiles m_tls;
  std::string m_why;
  std::unique_ptr<ACE_SSL_Context> m_context;
  std::unique_ptr<ACE_SSL_SOCK_Stream> m_tlsStream;
  ACE_INET_Addr m_address;
  bool m_resolved = false;
  bool m_open = false;
  ACE_SOCK_Stream m_stream;
  ACE_SOCK_Dgram m_dgram;
};

}  // namespace toviport

#endif
