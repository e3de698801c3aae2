// Forwarding of log records to a real rsyslogd, which writes each message
// it takes, raw, into a file: what arrives, byte for byte and in which order,
// and what a collector that is killed and restarted costs.
#include <arpa/inet.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

#include "WriterTestSupport.h"

using namespace tovitest;

namespace {

// rsyslogd in the foreground on a loopback port of its own (TCP with
// octet-counted frames and UDP), with no local socket and no system file.
class Collector {
public:
  // tls names the directory of ca.pem, server.pem and server.key: a TLS
  // collector that wants a client certificate for "client.test".
  explicit Collector(bool tcp, const std::string& tls = "") : tcp_(tcp) {
    const std::string p = std::to_string(port_);
    const std::string gtls = "DefaultNetstreamDriver=\"gtls\" DefaultNetstreamDriverCAFile=\"" + tls +
                             "ca.pem\" DefaultNetstreamDriverCertFile=\"" + tls +
                             "server.pem\" DefaultNetstreamDriverKeyFile=\"" + tls + "server.key\" ";
    WriteFile(dir_ / "conf",
              "global(workDirectory=\"" + dir_.path() + "\" " + (tls.empty() ? "" : gtls) +
                  "parser.escapeControlCharactersOnReceive=\"off\")\n" +
                  (tls.empty() ? "module(load=\"imtcp\")\n"
                               : "module(load=\"imtcp\" StreamDriver.Name=\"gtls\" StreamDriver.Mode=\"1\" "
                                 "StreamDriver.AuthMode=\"x509/name\" PermittedPeer=[\"client.test\"])\n") +
                  "module(load=\"imudp\")\n"
                  "input(type=\"imtcp\" port=\"" + p + "\" address=\"127.0.0.1\")\n"
                  "input(type=\"imudp\" port=\"" + p + "\" address=\"127.0.0.1\")\n"
                  "template(name=\"raw\" type=\"string\" string=\"%rawmsg%\\n<end>\\n\")\n"
                  "action(type=\"omfile\" file=\"" + (dir_ / "out") +
                  "\" template=\"raw\" flushOnTXEnd=\"on\" asyncWriting=\"off\")\n");
    Listen();
  }
  ~Collector() { Kill(); }
  std::string Target() const { return (tcp_ ? "tcp://127.0.0.1:" : "udp://127.0.0.1:") + std::to_string(port_); }
  std::string TlsTarget(const std::string& host = "127.0.0.1") const {
    return "tls://" + host + ":" + std::to_string(port_);
  }
  // As in a crash.
  void Kill() {
    if (pid_ > 0) ::kill(pid_, SIGKILL), ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  // Starts it, on the same port again after Kill, and waits until it takes
  // connections.
  void Listen() {
    std::remove((dir_ / "pid").c_str());
    const std::string conf = dir_ / "conf", pid = dir_ / "pid";
    const char* argv[] = {"/usr/sbin/rsyslogd", "-n", "-f", conf.c_str(), "-i", pid.c_str(), nullptr};
    const long maxFd = ::sysconf(_SC_OPEN_MAX);
    if ((pid_ = ::fork()) == 0) {
      // A test that crashes takes its collector with it; the library's
      // sockets must not stay open in the collector.
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      for (long fd = 3; fd < maxFd; ++fd) ::close(static_cast<int>(fd));
      ::execv(argv[0], const_cast<char* const*>(argv));
      ::_exit(127);
    }
    EXPECT_TRUE(WaitUntil([this] { return Accepts(); }, std::chrono::seconds(10)))
        << "rsyslogd (scripts/install-deps.sh installs it) did not come up";
  }
  // Every message that has been written out, in order.
  const std::vector<std::string>& Messages() {
    messages_.clear();
    const std::string out = ReadFile(dir_ / "out");
    for (std::size_t at = 0, end; (end = out.find("\n<end>\n", at)) != std::string::npos; at = end + 7)
      messages_.push_back(out.substr(at, end - at));
    return messages_;
  }

private:
  static int FreePort() {
    const int s = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof addr;
    ::bind(s, reinterpret_cast<sockaddr*>(&addr), len);
    ::getsockname(s, reinterpret_cast<sockaddr*>(&addr), &len);
    ::close(s);
    return ntohs(addr.sin_port);
  }
  bool Accepts() const {
    const int s = ::socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in addr{AF_INET, htons(static_cast<uint16_t>(port_)), {htonl(INADDR_LOOPBACK)}, {}};
    const bool ok = ::connect(s, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
    ::close(s);
    return ok;
  }

  bool tcp_;
  TempDir dir_;
  int port_ = FreePort();
  pid_t pid_ = -1;
  std::vector<std::string> messages_;
};

std::string AllLogs(const std::string& dir) {
  std::string all;
  for (const std::string& name : ListDir(dir)) all += ReadFile(dir + name);
  return all;
}

// A manager set up with forwarding as `syslog` says; its logs go to setup.logs.
bool Init(std::unique_ptr<MgrRoot>& setup, const std::string& syslog) {
  setup = std::make_unique<MgrRoot>("debug_level=1111\ndebug_output=01\nsyslog_target=" + syslog);
  return ToviDebugMgr::Instance()->Init("fwd", "", setup->logs.path(), "hdr\n", false, false);
}

bool Trace(const std::string& sub, int level, const std::string& text,
           const std::string& app = "", const AsnType* asn = nullptr) {
  return ToviDebugMgr::Instance()->AppTrace(sub, static_cast<ToviLogLevel>(level), text.c_str(),
                                            asn, false, true, app);
}

}  // namespace

// Every level, both kinds of writer, edge cases of the fields, and, over
// TCP, enough records from two writers at once that a reordering shows. Each
// message is its record's, byte for byte, cut with a mark past 2048 octets,
// and carries the instant of its record's log line.
TEST(SyslogForward, EveryRecordOnceInOrderWithItsFields) {
  char host[256] = "", zone[8] = "";
  ::gethostname(host, sizeof host);
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  std::strftime(zone, sizeof zone, "%z", ::localtime_r(&now, &local));
  const std::regex stamp(std::string(R"(\d{4}-\d\d-\d\dT(\d\d:\d\d:\d\d\.\d{6})[)") + zone[0] +
                         "]" + std::string(zone + 1, 2) + ":" + (zone + 3));
  const std::string tid = Hex(toviport::CurrentThreadId());
  const char* const names[] = {"ASSERT", "ERROR", "WARN", "INFO", "4", "31"};
  const int severities[] = {2, 3, 4, 6, 7, 7};
  for (const auto& [tcp, facility, code, sequence] :
       {std::tuple(true, "local7", 23, 300), std::tuple(false, "user", 1, 10)}) {
    SCOPED_TRACE(facility);
    Collector collector(tcp);
    std::unique_ptr<MgrRoot> setup;
    ASSERT_TRUE(Init(setup, collector.Target() + "\nsyslog_facility=" + facility + "\n"));
    // Per APP-NAME, in trace order: the message around its time stamp, and
    // the start of its record's log line.
    std::map<std::string, std::vector<std::array<std::string, 3>>> want;
    const auto log = [&](const std::string& app, const std::string& sub, int n,
                         const std::string& text, const AsnType* asn = nullptr,
                         const std::string& asnLines = "") {
      const int level = n < 4 ? n : n == 4 ? 4 : 31;
      EXPECT_TRUE(Trace(sub, level, text, app, asn));
      const std::string writer = "fwd" + (app.empty() ? app : app + "_");
      want[writer].push_back(
          {"<" + std::to_string(code * 8 + severities[n]) + ">1 ",
           " " + std::string(host) + " " + writer + " " + std::to_string(::getpid()) + " " +
               (sub.empty() ? "-" : sub.substr(0, 32)) + " [tovi@32473 thread=\"" + tid +
               "\" level=\"" + names[n] + "\"] " + text + asnLines,
           ".T" + tid + " " + sub + " " + (n < 4 ? names[n] + std::string(": ") : "") +
               text.substr(0, 20)});
    };
    for (int n = 0; n < 6; ++n) log("", "Lvl", n, "level " + std::to_string(n));
    log("", "", 3, "no sub-module");
    log("", std::string(40, 'm'), 2, "long sub-module");
    log("", "Text", 3, "first line\n  second | line\nthird");
    const CountingAsn value("VALUE{1}"), big(std::string(100, 'v'));
    log("", "Asn", 1, "with value", &value, "\nASN Trace:\nVALUE{1}");
    log("", "Asn", 3, std::string(2000, 'b'), &big, "\nASN Trace:\n" + std::string(100, 'v'));
    log("App", "Ap", 2, "application writer");
    for (int i = 0; i < sequence; ++i) {
      log("", "Seq", 3, "main " + std::to_string(i));
      log("App", "Seq", 3, "app " + std::to_string(i));
    }
    const std::size_t total = want["fwd"].size() + want["fwdApp_"].size();
    EXPECT_TRUE(WaitUntil([&] { return collector.Messages().size() >= total; }));
    ToviDebugMgr::Destroy();
    // The forwarding's own notices (sub-module "syslog") are no traced records.
    std::map<std::string, std::vector<std::string>> got;
    for (const std::string& m : collector.Messages()) {
      std::string pri, time, from, app, pid, msgid;
      std::istringstream(m) >> pri >> time >> from >> app >> pid >> msgid;
      if (msgid != "syslog") got[app].push_back(m);
    }
    const std::string logged = AllLogs(setup->logs.path());
    for (const auto& [writer, wants] : want) {
      ASSERT_EQ(got[writer].size(), wants.size()) << writer;
      for (std::size_t i = 0; i < wants.size(); ++i) {
        const std::string& m = got[writer][i];
        const std::string time = m.substr(wants[i][0].size(), 32), whole = wants[i][0] + time + wants[i][1];
        std::smatch clock;
        ASSERT_TRUE(std::regex_match(time, clock, stamp)) << m;
        EXPECT_EQ(m, whole.size() > 2048 ? whole.substr(0, 2043) + "[cut]" : whole);
        EXPECT_NE(logged.find("\n" + clock[1].str() + wants[i][2]), std::string::npos) << m;
      }
    }
  }
}

// The collector is killed, records come, it starts again on its port: with
// the smallest backlog bound, every record arrives once or is counted, in
// order, and the count arrives after the kept records.
TEST(SyslogForward, CollectorKilledAndRestarted) {
  const char kDropped[] = " records dropped while the collector was unreachable";
  Collector collector(true);
  std::unique_ptr<MgrRoot> setup;
  ASSERT_TRUE(Init(setup, collector.Target() + "\nsyslog_buffer_kb=64\n"));
  const auto arrived = [&](const std::string& pattern) {
    return WaitUntil([&] {
      const std::vector<std::string>& all = collector.Messages();
      return std::any_of(all.begin(), all.end(),
                         [&](const std::string& m) { return std::regex_search(m, std::regex(pattern)); });
    });
  };
  std::vector<std::string> wantUp, up, notices;
  const auto traceUp = [&](const std::string& when) {
    for (int i = 0; i < 20; ++i) EXPECT_TRUE(Trace("Up", 3, wantUp.emplace_back(when + std::to_string(i))));
  };
  traceUp("before ");
  ASSERT_TRUE(arrived("before 19$"));
  collector.Kill();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  // 300 kB of records against a bound of 64 kB.
  for (int i = 0; i < 300; ++i) EXPECT_TRUE(Trace("Down", 3, std::to_string(i) + std::string(1000, 'p')));
  collector.Listen();
  EXPECT_TRUE(arrived("\\d+" + std::string(kDropped)));
  traceUp("after ");
  EXPECT_TRUE(arrived("after 19$"));
  ToviDebugMgr::Destroy();
  // The forwarder's own "cannot reach" lines are records too: one that found
  // the backlog full is in the count.
  const std::string logged = AllLogs(setup->logs.path());
  std::size_t lostNotices = Occurrences(logged, "syslog WARN: cannot reach");
  std::vector<int> kept;
  for (const std::string& m : collector.Messages()) {
    const std::string msg = m.substr(m.find("\"] ") + 3);
    lostNotices -= msg.rfind("cannot reach", 0) == 0;
    if (m.find(" Down [") != std::string::npos) kept.push_back(std::stoi(msg));
    if (m.find(" Up [") != std::string::npos) up.push_back(msg);
    if (EndsWith(m, kDropped)) notices.push_back(m.substr(0, 5) + std::to_string(kept.size()) + msg);
  }
  EXPECT_EQ(up, wantUp);
  EXPECT_TRUE(std::is_sorted(kept.begin(), kept.end(), std::less_equal<int>()) && kept.size() < 300);
  const std::string count = std::to_string(300 - kept.size() + lostNotices) + kDropped;
  EXPECT_EQ(notices, std::vector<std::string>{"<132>" + std::to_string(kept.size()) + count});
  EXPECT_NE(logged.find("syslog WARN: " + count + "\n"), std::string::npos);
}

// Runs the openssl command with args (no shell); true when it succeeded.
static bool OpenSsl(const std::vector<std::string>& args) {
  std::vector<char*> argv{const_cast<char*>("openssl")};
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, 1), ::dup2(null, 2);
    ::execvp("openssl", argv.data());
    ::_exit(127);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// A CA, and certificates it signs for name (with the SANs given), into dir.
static bool MakeCa(const std::string& dir, const std::string& ca) {
  return OpenSsl({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                  "-keyout", dir + ca + ".key", "-out", dir + ca + ".pem", "-days", "2", "-subj", "/CN=" + ca,
                  "-addext", "basicConstraints=critical,CA:TRUE", "-addext", "keyUsage=critical,keyCertSign"});
}
static bool Sign(const std::string& dir, const std::string& ca, const std::string& name, const std::string& sans,
                 const std::string& usage) {
  WriteFile(dir + name + ".ext", "subjectAltName=" + sans + "\nextendedKeyUsage=" + usage + "\n");
  return OpenSsl({"req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-keyout",
                  dir + name + ".key", "-out", dir + name + ".csr", "-subj", "/CN=" + name}) &&
         OpenSsl({"x509", "-req", "-in", dir + name + ".csr", "-CA", dir + ca + ".pem", "-CAkey", dir + ca + ".key",
                  "-CAcreateserial", "-out", dir + name + ".pem", "-days", "2", "-extfile", dir + name + ".ext"});
}

// Forwarding over TLS to a real rsyslogd that checks certificates both
// ways: every record arrives once, in order, also across a restart of the
// collector; a collector the CA did not sign, one with another name, and a
// client without a certificate get no record, and the main log says why;
// a plain listener behind a tls:// target never sees a record's text.
TEST(SyslogForward, OverTlsWithVerifiedCertificates) {
  TempDir pki;
  const std::string good = pki / "good/", wrongCa = pki / "wrongca/", wrongName = pki / "wrongname/";
  for (const std::string& d : {good, wrongCa, wrongName}) std::filesystem::create_directories(d);
  ASSERT_TRUE(MakeCa(pki.path(), "ca") && MakeCa(pki.path(), "other") &&
              Sign(pki.path(), "ca", "server", "DNS:localhost,IP:127.0.0.1", "serverAuth") &&
              Sign(pki.path(), "ca", "client.test", "DNS:client.test", "clientAuth") &&
              Sign(pki.path(), "other", "foreign", "DNS:localhost,IP:127.0.0.1", "serverAuth") &&
              Sign(pki.path(), "ca", "elsewhere", "DNS:elsewhere.test", "serverAuth"))
      << "openssl could not make the test certificates";
  const auto install = [&](const std::string& dir, const std::string& cert) {
    std::filesystem::copy_file(pki / "ca.pem", dir + "ca.pem");
    std::filesystem::copy_file(pki / (cert + ".pem"), dir + "server.pem");
    std::filesystem::copy_file(pki / (cert + ".key"), dir + "server.key");
  };
  install(good, "server"), install(wrongCa, "foreign"), install(wrongName, "elsewhere");
  const std::string client = "\nsyslog_tls_ca_file=" + pki / "ca.pem" + "\nsyslog_tls_cert_file=" +
                             pki / "client.test.pem" + "\nsyslog_tls_key_file=" + pki / "client.test.key" + "\n";
  const auto texts = [](Collector& c) {
    std::vector<std::string> got;
    for (const std::string& m : c.Messages())
      if (m.find(" Tls [") != std::string::npos) got.push_back(m.substr(m.find("\"] ") + 3));
    return got;
  };

  {  // Every record, once, in order, across a restart of the collector.
    Collector collector(true, good);
    std::unique_ptr<MgrRoot> setup;
    ASSERT_TRUE(Init(setup, collector.TlsTarget("localhost") + client));
    std::vector<std::string> want;
    for (int i = 0; i < 50; ++i) EXPECT_TRUE(Trace("Tls", 3, want.emplace_back("r" + std::to_string(i))));
    EXPECT_TRUE(WaitUntil([&] { return texts(collector).size() >= 50; }));
    collector.Kill();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    for (int i = 50; i < 60; ++i) EXPECT_TRUE(Trace("Tls", 3, want.emplace_back("r" + std::to_string(i))));
    collector.Listen();
    EXPECT_TRUE(WaitUntil([&] { return texts(collector).size() >= 60; }));
    ToviDebugMgr::Destroy();
    EXPECT_EQ(texts(collector), want);
  }
  // Refusals: nothing arrives, and the main log says why.
  const std::vector<std::tuple<std::string, std::string, std::string>> refusals = {
      {wrongCa, client, "certificate verify failed"},
      {wrongName, client, "certificate verify failed: IP address mismatch"},
      {good, "\nsyslog_tls_ca_file=" + pki / "ca.pem" + "\n", "no TLS session with syslog collector"}};
  for (const auto& [dir, keys, why] : refusals) {
    SCOPED_TRACE(why);
    Collector collector(true, dir);
    std::unique_ptr<MgrRoot> setup;
    ASSERT_TRUE(Init(setup, collector.TlsTarget() + keys));
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(Trace("Tls", 3, "secret " + std::to_string(i)));
    EXPECT_TRUE(WaitUntil([&] { return AllLogs(setup->logs.path()).find(why) != std::string::npos; }));
    ToviDebugMgr::Destroy();
    EXPECT_TRUE(texts(collector).empty());
    EXPECT_EQ(Occurrences(AllLogs(setup->logs.path()), "syslog WARN: no TLS session") +
                  Occurrences(AllLogs(setup->logs.path()), "syslog WARN: cannot reach"), 1u);
  }
  {  // A plain listener never sees clear text.
    Collector plain(true);
    std::unique_ptr<MgrRoot> setup;
    ASSERT_TRUE(Init(setup, plain.TlsTarget() + client));
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(Trace("Tls", 3, "secret " + std::to_string(i)));
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    ToviDebugMgr::Destroy();
    for (const std::string& m : plain.Messages()) EXPECT_EQ(m.find("secret"), std::string::npos) << m;
  }
}
