// CollectorSocket.cpp - ACE's sockets, and its TLS layer over OpenSSL, as
// the forwarder uses them.
#include "port/CollectorSocket.h"

#include <cerrno>

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>

#include <ace/SOCK_Connector.h>
#include <ace/SSL/SSL_Context.h>
#include <ace/SSL/SSL_SOCK_Connector.h>
#include <ace/SSL/SSL_SOCK_Stream.h>
#include <ace/Time_Value.h>

namespace toviport {

namespace {
// The system's trust store, named rather than found through the
// environment.
constexpr char kSystemCaFile[] = "/etc/ssl/certs/ca-certificates.crt";

ACE_Time_Value Wait(unsigned milliseconds) {
  ACE_Time_Value wait;
  wait.msec(static_cast<long>(milliseconds));
  return wait;
}

bool IsIpAddress(const std::string& host) {
  unsigned char buffer[16];
  return ::inet_pton(AF_INET, host.c_str(), buffer) == 1 ||
         ::inet_pton(AF_INET6, host.c_str(), buffer) == 1;
}

// The first error OpenSSL queued, or empty; the queue is emptied.
std::string OpenSslError() {
  const unsigned long code = ERR_get_error();
  ERR_clear_error();
  if (code == 0) return std::string();
  const char* reason = ERR_reason_error_string(code);
  return reason != nullptr ? reason : "TLS error " + std::to_string(code);
}
// True when the collector ends the session within a moment of the
// handshake (with an alert, or by closing); data it sends meanwhile (a
// session ticket) stays for OpenSSL to handle.
bool RefusedAfterHandshake(SSL* ssl, int fd) {
  constexpr int kVerdictWaitMs = 200;
  struct pollfd in {fd, POLLIN, 0};
  if (::poll(&in, 1, kVerdictWaitMs) <= 0) return false;
  // Without blocking: after a ticket the peek would wait for data that no
  // collector sends.
  const int flags = ::fcntl(fd, F_GETFL);
  ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  char byte;
  const int n = SSL_peek(ssl, &byte, 1);
  const int error = n > 0 ? SSL_ERROR_NONE : SSL_get_error(ssl, n);
  ::fcntl(fd, F_SETFL, flags);
  return error != SSL_ERROR_NONE && error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE;
}
}  // namespace

CollectorSocket::CollectorSocket(const std::string& host, unsigned short port,
                                 Transport transport, unsigned waitMs, const TlsFiles& tls)
    : m_host(host), m_port(port), m_transport(transport), m_waitMs(waitMs), m_tls(tls) {}

CollectorSocket::~CollectorSocket() { Close(); }

CollectorSocket::OpenResult CollectorSocket::Open() {
  if (m_open) return OpenResult::Open;
  if (!m_resolved && m_address.set(m_port, m_host.c_str()) != 0) return OpenResult::Unresolved;
  m_resolved = true;
  if (m_transport == Transport::kTls) return OpenTls();
  if (m_transport == Transport::kTcp) {
    ACE_SOCK_Connector connector;
    const ACE_Time_Value wait = Wait(m_waitMs);
    m_open = connector.connect(m_stream, m_address, &wait) == 0;
  } else {
    const ACE_INET_Addr any(static_cast<unsigned short>(0), "0.0.0.0", m_address.get_type());
    m_open = m_dgram.open(any, m_address.get_type()) == 0;
  }
  return m_open ? OpenResult::Open : OpenResult::Unreachable;
}

bool CollectorSocket::MakeContext() {
  if (m_context) return true;
  auto context = std::make_unique<ACE_SSL_Context>();
  if (context->set_mode(ACE_SSL_Context::SSLv23_client) != 0) {
    m_why = "cannot set up TLS: " + OpenSslError();
    return false;
  }
  SSL_CTX* ctx = context->context();
  SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
  // Each session takes its verify mode from here when it is made (ACE sets
  // it per session); the context's own is set too for anything else.
  context->default_verify_mode(SSL_VERIFY_PEER);
  SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, nullptr);
  const std::string ca = m_tls.caFile.empty() ? kSystemCaFile : m_tls.caFile;
  if (context->load_trusted_ca(ca.c_str(), nullptr, false) != 0) {
    m_why = "cannot load the CA file " + ca + ": " + OpenSslError();
    return false;
  }
  if (!m_tls.certFile.empty() &&
      (context->certificate(m_tls.certFile.c_str(), SSL_FILETYPE_PEM) != 0 ||
       context->private_key(m_tls.keyFile.c_str(), SSL_FILETYPE_PEM) != 0)) {
    m_why = "cannot load the client certificate " + m_tls.certFile + ": " + OpenSslError();
    return false;
  }
  m_context = std::move(context);
  return true;
}

CollectorSocket::OpenResult CollectorSocket::OpenTls() {
  if (!MakeContext()) return OpenResult::Refused;
  // A new session for every attempt: one that failed keeps its state.
  m_tlsStream = std::make_unique<ACE_SSL_SOCK_Stream>(m_context.get());
  SSL* ssl = m_tlsStream->ssl();
  if (IsIpAddress(m_host)) {
    X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), m_host.c_str());
  } else {
    SSL_set_tlsext_host_name(ssl, m_host.c_str());
    SSL_set1_host(ssl, m_host.c_str());
  }
  ERR_clear_error();
  ACE_SSL_SOCK_Connector connector;
  const ACE_Time_Value wait = Wait(m_waitMs);
  if (connector.connect(*m_tlsStream, m_address, &wait) == 0) {
    // Under TLS 1.3 a collector judges the client's certificate after the
    // handshake has ended for the client: a refusal comes as an alert right
    // after. A short look for it keeps records from going out into a
    // session that is already being closed.
    if (!RefusedAfterHandshake(ssl, m_tlsStream->get_handle())) {
      m_open = true;
      m_why.clear();
      return OpenResult::Open;
    }
    m_why = "TLS session refused by the collector: " + OpenSslError();
    m_tlsStream.reset();
    return OpenResult::Refused;
  }
  const long verified = SSL_get_verify_result(ssl);
  std::string why = OpenSslError();
  m_tlsStream.reset();
  if (verified != X509_V_OK) {
    m_why = std::string("certificate verify failed: ") + X509_verify_cert_error_string(verified);
    return OpenResult::Refused;
  }
  if (why.empty()) return OpenResult::Unreachable;  // no session was even begun
  m_why = "TLS handshake failed: " + why;
  return OpenResult::Refused;
}

void CollectorSocket::Close() {
  if (!m_open) return;
  if (m_transport == Transport::kTls) {
    // No close_notify: writing it to a collector that went away would raise
    // SIGPIPE on whichever thread closes (a Destroy's, say), or wait on a
    // collector that stopped reading. The collector sees the connection end.
    SSL_set_quiet_shutdown(m_tlsStream->ssl(), 1);
    m_tlsStream->close();
    m_tlsStream.reset();
  } else if (m_transport == Transport::kTcp) {
    m_stream.close();
  } else {
    m_dgram.close();
  }
  m_open = false;
}

bool CollectorSocket::PeerClosed() {
  // Under TLS the peek sees the session's own records too: those are data,
  // not an end.
  const ACE_HANDLE handle =
      m_transport == Transport::kTls ? m_tlsStream->get_handle() : m_stream.get_handle();
  char byte;
  const ssize_t n = ::recv(handle, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK);
}

bool CollectorSocket::SendStream(const char* data, std::size_t size, std::size_t& sent) {
  sent = 0;
  const ACE_Time_Value wait = Wait(m_waitMs);
  if (m_transport == Transport::kTls) {
    return m_tlsStream->send_n(data, size, 0, &wait, &sent) == static_cast<ssize_t>(size);
  }
  return m_stream.send_n(data, size, MSG_NOSIGNAL, &wait, &sent) == static_cast<ssize_t>(size);
}

bool CollectorSocket::SendDatagram(const char* data, std::size_t size) {
  return m_dgram.send(data, size, m_address) == static_cast<ssize_t>(size);
}

}  // namespace toviport
