// Forwarding of log records to a syslog collector, a real rsyslogd: what
// arrives and in which order, what a collector that goes away costs, and a
// configuration that cannot be used.
#include <gtest/gtest.h>

#include <ctime>
#include <functional>
#include <map>
#include <regex>
#include <tuple>

#include "RsyslogSupport.h"
#include "port/ToviPort.h"

using namespace tovitest;

namespace {

const char kName[] = "fwd";
const char kDropped[] = " records dropped while the collector was unreachable";

// A traced record; msg is its text as the collector should show it.
struct Want {
  std::string sub;
  int level;
  std::string msg;
};
// Per APP-NAME, in trace order.
typedef std::map<std::string, std::vector<Want>> Traced;

void Log(Traced& traced, const std::string& app, const std::string& sub, int level,
         const std::string& text, const AsnType* asn = nullptr, const std::string& asnLines = "") {
  EXPECT_TRUE(ToviDebugMgr::Instance()->AppTrace(sub, static_cast<ToviLogLevel>(level),
                                                 text.c_str(), asn, false, true, app));
  traced[kName + (app.empty() ? app : app + "_")].push_back({sub, level, text + asnLines});
}

std::string LevelName(int level) {
  static const char* const names[] = {"ASSERT", "ERROR", "WARN", "INFO"};
  return level < 4 ? names[level] : std::to_string(level);
}

std::string AllLogs(const std::string& dir) {
  std::string all;
  for (const std::string& name : ListDir(dir))
    if (EndsWith(name, ".log")) all += ReadFile(dir + name);
  return all;
}

// Each writer's messages are its records once each, in order, with their
// fields; a message of more than 2048 octets in all ends cut, with a mark.
// Each shows the instant, thread and text of its record's log line.
void ExpectForwarded(const std::vector<SyslogMessage>& all, int facility, const Traced& traced,
                     const std::string& logDir) {
  static const int severity[] = {2, 3, 4, 6};
  const std::string log = AllLogs(logDir), tid = Hex(toviport::CurrentThreadId());
  char host[256] = "", zone[8] = "";
  ::gethostname(host, sizeof host);
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  std::strftime(zone, sizeof zone, "%z", ::localtime_r(&now, &local));
  const std::regex stamp(std::string(R"(\d{4}-\d\d-\d\dT(\d\d:\d\d:\d\d\.\d{6})[)") + zone[0] +
                         "]" + std::string(zone + 1, 2) + ":" + (zone + 3));
  // The forwarding's own notices (sub-module "syslog") are not traced records.
  std::map<std::string, std::vector<SyslogMessage>> ours;
  for (const SyslogMessage& m : all)
    if (m.msgid != "syslog") ours[m.app].push_back(m);
  for (const auto& [app, wants] : traced) {
    const std::vector<SyslogMessage>& got = ours[app];
    EXPECT_EQ(got.size(), wants.size()) << "writer '" << app << "'";
    for (std::size_t i = 0; i < std::min(got.size(), wants.size()); ++i) {
      const SyslogMessage& m = got[i];
      const Want& w = wants[i];
      const std::string head = "<" + m.pri + ">1 " + m.timestamp + " " + m.host + " " + m.app +
                               " " + m.procid + " " + m.msgid + " " + m.sd + " ";
      const std::size_t room = 2048 - head.size();
      ASSERT_EQ(m.host + " " + m.procid + " " + m.pri + " " + m.msgid + " " + m.sd + " " + m.msg,
                std::string(host) + " " + std::to_string(::getpid()) + " " +
                    std::to_string(facility * 8 + (w.level < 4 ? severity[w.level] : 7)) + " " +
                    (w.sub.empty() ? "-" : w.sub.substr(0, 32)) + " [tovi@32473 thread=\"" + tid +
                    "\" level=\"" + LevelName(w.level) + "\"] " +
                    (w.msg.size() > room ? w.msg.substr(0, room - 5) + "[cut]" : w.msg))
          << "writer '" << app << "', message " << i;
      std::smatch time;
      ASSERT_TRUE(std::regex_match(m.timestamp, time, stamp)) << m.timestamp << " in " << zone;
      const std::string line = "\n" + time[1].str() + ".T" + tid + " " + w.sub +
                               (w.level < 4 ? " " + LevelName(w.level) + ": " : " ") +
                               (w.msg.size() > room ? m.msg.substr(0, room - 5) : m.msg + "\n");
      EXPECT_NE(log.find(line), std::string::npos) << "no such log line:" << line;
    }
  }
}

// A manager set up with forwarding as `syslog` says; its logs go to setup.logs.
bool Init(std::unique_ptr<MgrRoot>& setup, const std::string& syslog) {
  setup = std::make_unique<MgrRoot>("debug_level=1111\ndebug_output=01\nsyslog_target=" + syslog);
  return ToviDebugMgr::Instance()->Init(kName, "", setup->logs.path(), "hdr\n", false, false);
}

}  // namespace

// Every level, both kinds of writer, edge cases of the fields, and, over
// TCP, enough records from two writers at once that a reordering shows.
TEST(SyslogForward, EveryRecordOnceInOrderWithItsFields) {
  for (const auto& [scheme, facility, code, sequence] :
       {std::tuple("tcp", "local7", 23, 300), std::tuple("udp", "user", 1, 10)}) {
    SCOPED_TRACE(scheme);
    Rsyslogd collector;
    ASSERT_EQ(collector.Start(), "");
    std::unique_ptr<MgrRoot> setup;
    ASSERT_TRUE(Init(setup, collector.Target(scheme) + "\nsyslog_facility=" + facility + "\n"));
    Traced traced;
    for (int level : {0, 1, 2, 3, 4, 31})
      Log(traced, "", "Lvl", level, "level " + LevelName(level));
    Log(traced, "", "", LEVEL_INFO, "no sub-module");
    Log(traced, "", std::string(40, 'm'), LEVEL_WARN, "long sub-module");
    Log(traced, "", "Text", LEVEL_INFO, "first line\n  second | line\nthird");
    const CountingAsn value("VALUE{1}"), big(std::string(100, 'v'));
    Log(traced, "", "Asn", LEVEL_ERROR, "with value", &value, "\nASN Trace:\nVALUE{1}");
    Log(traced, "", "Asn", LEVEL_INFO, std::string(2000, 'b'), &big,
        "\nASN Trace:\n" + std::string(100, 'v'));
    Log(traced, "App", "Ap", LEVEL_WARN, "application writer");
    for (int i = 0; i < sequence; ++i) {
      Log(traced, "", "Seq", LEVEL_INFO, "main " + std::to_string(i));
      Log(traced, "App", "Seq", LEVEL_INFO, "app " + std::to_string(i));
    }
    const std::size_t total = traced["fwd"].size() + traced["fwdApp_"].size();
    EXPECT_TRUE(WaitUntil([&] { return collector.Messages().size() >= total; }));
    ToviDebugMgr::Destroy();
    collector.Stop();
    ExpectForwarded(collector.Messages(), code, traced, setup->logs.path());
  }
}

// The collector is killed, records come, it starts again on its port. With
// the default backlog bound every record arrives once; with the smallest
// bound those beyond it are counted, and the count arrives after the kept.
TEST(SyslogForward, CollectorKilledAndRestarted) {
  for (const char* bound : {"", "syslog_buffer_kb=64\n"}) {
    SCOPED_TRACE(bound);
    Rsyslogd collector;
    ASSERT_EQ(collector.Start(), "");
    std::unique_ptr<MgrRoot> setup;
    ASSERT_TRUE(Init(setup, collector.Target("tcp") + "\n" + bound));
    std::vector<std::string> up, wantUp, notices;
    const auto log = [&](const std::string& sub, const std::string& text) {
      EXPECT_TRUE(
          ToviDebugMgr::Instance()->Trace(sub, LEVEL_INFO, text.c_str(), nullptr, false, true));
      if (sub == "Up") wantUp.push_back(text);
    };
    const auto arrived = [&](const std::string& msg) {
      for (const SyslogMessage& m : collector.Messages())
        if (std::regex_match(m.msg, std::regex(msg))) return true;
      return false;
    };
    for (int i = 0; i < 20; ++i) log("Up", "before " + std::to_string(i));
    ASSERT_TRUE(WaitUntil([&] { return arrived("before 19"); }));
    collector.Kill();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    // 60 kB of records, or 300 kB against a bound of 64 kB.
    for (int i = 0; i < 300; ++i)
      log("Down", std::to_string(i) + std::string(*bound ? 1000 : 200, 'p'));
    ASSERT_EQ(collector.Start(), "");
    // Records that come while the backlog is still full may count as dropped.
    EXPECT_TRUE(
        WaitUntil([&] { return arrived(*bound ? "\\d+" + std::string(kDropped) : "299p+"); }));
    for (int i = 0; i < 20; ++i) log("Up", "after " + std::to_string(i));
    EXPECT_TRUE(WaitUntil([&] { return arrived("after 19"); }));
    ToviDebugMgr::Destroy();
    collector.Stop();
    // Before and after once each in order, an ordered part of those in
    // between, and after them one notice that counts the rest, if any.
    std::vector<int> kept;
    for (const SyslogMessage& m : collector.Messages()) {
      if (m.msgid == "Down") kept.push_back(std::stoi(m.msg));
      if (m.msgid == "Up") up.push_back(m.msg);
      if (EndsWith(m.msg, kDropped))
        notices.push_back(m.pri + " after " + std::to_string(kept.size()) + ": " + m.msg);
    }
    EXPECT_EQ(up, wantUp);
    EXPECT_TRUE(std::is_sorted(kept.begin(), kept.end(), std::less_equal<int>()) &&
                (kept.size() < 300) == (*bound != '\0'))
        << kept.size() << " of 300 kept, in order once each or not";
    const std::string count = std::to_string(300 - kept.size()) + kDropped;
    if (kept.size() == 300) {
      EXPECT_EQ(notices, std::vector<std::string>{});
    } else {
      EXPECT_EQ(notices, std::vector<std::string>{"132 after " + std::to_string(kept.size()) + ": " + count});
      EXPECT_NE(AllLogs(setup->logs.path()).find("syslog WARN: " + count + "\n"), std::string::npos);
    }
  }
}

// A collector that nobody listens for, or a target or facility that cannot
// be used: every record still reaches the log file, the stop does not wait
// for a collector, and an unusable setting says once that forwarding is off.
TEST(SyslogForward, LoggingUnaffectedWithoutAUsableCollector) {
  const std::string nobody = "tcp://127.0.0.1:" + std::to_string(FreePort()) + "\n";
  for (const std::string& target :
       std::vector<std::string>{nobody, "tcp://nohost\n", "ftp://x:1\n",
                                "udp://127.0.0.1:514\nsyslog_facility=local9\n"}) {
    SCOPED_TRACE(target);
    std::unique_ptr<MgrRoot> setup;
    ASSERT_TRUE(Init(setup, target));
    std::vector<std::string> want, got;
    for (int i = 0; i < 2000; ++i) {
      want.push_back("Off INFO: record " + std::to_string(i));
      ASSERT_TRUE(ToviDebugMgr::Instance()->Trace("Off", LEVEL_INFO, want.back().c_str() + 10,
                                                  nullptr, false, true));
    }
    const auto start = std::chrono::steady_clock::now();
    ToviDebugMgr::Destroy();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5)) << "Destroy hangs";
    const std::string log = AllLogs(setup->logs.path());
    for (const std::string& text : RecordTexts(log))
      if (text.rfind("Off ", 0) == 0) got.push_back(text);
    EXPECT_EQ(got, want);
    EXPECT_EQ(Occurrences(log, "syslog forwarding off"), target == nobody ? 0u : 1u) << log;
  }
}
