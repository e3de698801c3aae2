// RsyslogSupport.h - a real rsyslogd as the collector of the forwarding
// tests, on a loopback port of its own, and the messages it wrote out.
#ifndef TOVI_TESTS_RSYSLOGSUPPORT_H
#define TOVI_TESTS_RSYSLOGSUPPORT_H

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "WriterTestSupport.h"

namespace tovitest {

// One message as rsyslog parsed it, msg with its line ends put back.
struct SyslogMessage {
  std::string pri, timestamp, host, app, procid, msgid, sd, msg;
};

inline sockaddr_in Loopback(int port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return addr;
}

// A loopback port that nothing listens on when this returns.
inline int FreePort() {
  const int s = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr = Loopback(0);
  socklen_t len = sizeof addr;
  ::bind(s, reinterpret_cast<sockaddr*>(&addr), len);
  ::getsockname(s, reinterpret_cast<sockaddr*>(&addr), &len);
  ::close(s);
  return ntohs(addr.sin_port);
}

// rsyslogd in the foreground with imtcp and imudp on one loopback port and
// nothing else: no local socket, no system file. Killed, it can start again
// on the same port and write on into the same output.
class Rsyslogd {
 public:
  static constexpr const char* kBinary = "/usr/sbin/rsyslogd";

  Rsyslogd() {
    const std::string p = std::to_string(port_);
    // Escaped control characters ("#012") keep each message on one line;
    // the tests read the output while rsyslogd runs, hence the flushing.
    WriteFile(dir_ / "rsyslog.conf",
              "global(workDirectory=\"" + dir_.path() +
                  "\" parser.escapeControlCharactersOnReceive=\"on\")\n"
                  "module(load=\"imtcp\")\nmodule(load=\"imudp\")\n"
                  "input(type=\"imtcp\" port=\"" + p + "\" address=\"127.0.0.1\")\n"
                  "input(type=\"imudp\" port=\"" + p + "\" address=\"127.0.0.1\")\n"
                  "template(name=\"f\" type=\"string\" string=\"%PRI%|%TIMESTAMP:::date-rfc3339%|"
                  "%HOSTNAME%|%APP-NAME%|%PROCID%|%MSGID%|%STRUCTURED-DATA%|%msg%\\n\")\n"
                  "action(type=\"omfile\" file=\"" + (dir_ / "out") +
                  "\" template=\"f\" flushOnTXEnd=\"on\" asyncWriting=\"off\")\n");
  }
  ~Rsyslogd() { Stop(); }

  std::string Target(const std::string& scheme) const {
    return scheme + "://127.0.0.1:" + std::to_string(port_);
  }

  // "" once its TCP port accepts, else why it does not.
  std::string Start() {
    if (::access(kBinary, X_OK) != 0)
      return std::string(kBinary) + " is missing: install rsyslog (scripts/install-deps.sh)";
    // The pid file of a killed one would keep the next from starting.
    std::remove((dir_ / "pid").c_str());
    const std::string conf = dir_ / "rsyslog.conf", pid = dir_ / "pid";
    const char* argv[] = {kBinary, "-n", "-f", conf.c_str(), "-i", pid.c_str(), nullptr};
    const int log = ::open((dir_ / "rsyslogd.txt").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    const long maxFd = ::sysconf(_SC_OPEN_MAX);
    if ((pid_ = ::fork()) == 0) {
      // A test process that crashes takes its collector with it.
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      ::dup2(log, 1);
      ::dup2(log, 2);
      // The library's sockets must not stay open in the collector.
      for (long fd = 3; fd < maxFd; ++fd) ::close(static_cast<int>(fd));
      ::execv(kBinary, const_cast<char* const*>(argv));
      ::_exit(127);
    }
    ::close(log);
    WaitUntil([this] { return !Running() || Accepts(); }, std::chrono::seconds(10));
    if (Running() && Accepts()) return "";
    Kill();
    return "rsyslogd did not come up on port " + std::to_string(port_) + ": " +
           ReadFile(dir_ / "rsyslogd.txt");
  }

  // As in a crash: what it had not written out is lost.
  void Kill() { End(SIGKILL); }
  void Stop() { End(SIGTERM) || End(SIGKILL); }

  std::vector<SyslogMessage> Messages() const {
    std::vector<SyslogMessage> messages;
    for (std::string line : SplitLines(ReadFile(dir_ / "out"))) {
      SyslogMessage m;
      for (std::string* field : {&m.pri, &m.timestamp, &m.host, &m.app, &m.procid, &m.msgid, &m.sd}) {
        *field = line.substr(0, line.find('|'));
        line.erase(0, std::min(field->size() + 1, line.size()));
      }
      for (std::size_t at; (at = line.find("#012")) != std::string::npos;)
        line.replace(at, 4, "\n");
      m.msg = line;
      messages.push_back(m);
    }
    return messages;
  }

 private:
  bool Running() {
    if (pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) != 0) pid_ = -1;
    return pid_ > 0;
  }
  bool Accepts() const {
    const int s = ::socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in addr = Loopback(port_);
    const bool ok = ::connect(s, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
    ::close(s);
    return ok;
  }
  // Signals it and reaps it within a bound; true when it is gone.
  bool End(int signal) {
    if (pid_ > 0) ::kill(pid_, signal);
    return WaitUntil([this] { return !Running(); }, std::chrono::seconds(5));
  }

  TempDir dir_;
  int port_ = FreePort();
  pid_t pid_ = -1;
};

}  // namespace tovitest

#endif
