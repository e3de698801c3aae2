// SyslogForwarder.h - the one thread per process that sends records to a
// syslog collector.
//
// Writers hand over their formatted messages after each batch has reached
// the file, so the file never waits for the network and a tracing thread
// never sees it. Messages wait in a bounded backlog while the collector is
// down, slow or refusing; the forwarder reconnects with a growing pause and
// then sends the backlog in order, followed by a count of what the bound
// forced it to drop. Over TCP messages are framed by octet counting.
#ifndef TOVI_FORWARD_SYSLOGFORWARDER_H
#define TOVI_FORWARD_SYSLOGFORWARDER_H

#include <cstddef>
#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>

#include <ace/Condition_Thread_Mutex.h>
#include <ace/Thread_Mutex.h>

#include "port/CollectorSocket.h"
#include "port/ToviPort.h"

class SyslogForwarder {
public:
  struct Settings {
    bool tcp = true;
    std::string host;
    unsigned short port = 0;
    int facility = 16;
    std::size_t backlogBytes = 8192 * 1024;
    // APP-NAME of the forwarder's own messages: the main writer's prefix.
    std::string appName;
  };

  // Reads the configured values; false with why set when one is malformed.
  // An empty target gives true with host empty: forwarding is off.
  static bool Parse(const std::string& target, const std::string& facility,
                    const std::string& bufferKb, Settings& out, std::string& why);

  // notify writes one line into the main log file; it is called from the
  // forwarder's thread until Stop begins.
  SyslogForwarder(const Settings& settings, std::function<void(const std::string&)> notify);
  ~SyslogForwarder();
  SyslogForwarder(const SyslogForwarder&) = delete;
  SyslogForwarder& operator=(const SyslogForwarder&) = delete;

  int Facility() const { return m_Settings.facility; }

  // Takes count framed messages (see syslogmessage::AppendFramed) into the
  // backlog, or drops and counts them when the bound has no room. Waits for
  // nothing but the backlog's lock.
  void Submit(std::string& framed, std::size_t count);

  // False while the backlog is full: a writer then need not format its
  // records' messages at all, only count them with Skipped.
  bool Accepting() const { return m_bAccepting.load(std::memory_order_relaxed); }
  void Skipped(std::size_t count);

  // From here on nothing more goes into the log file; waits for a line
  // that is being written.
  void DisableNotify();

  // Sends what it can for about a second, then closes and joins the thread.
  void Stop();

private:
  static void* Run(void* arg);
  void Loop();
  bool Connect();
  // Sends the frames of chunk from offset on; offset ends past the last
  // frame that went out whole.
  bool Send(const std::string& chunk, std::size_t& offset);
  // Sleeps for the current back-off, unless a stop comes first.
  void BackOff();
  void Notify(const std::string& line);

  const Settings m_Settings;
  std::function<void(const std::string&)> m_Notify;
  ACE_Thread_Mutex m_Lock;
  ACE_Condition_Thread_Mutex m_Wake;
  struct Chunk {
    std::string framed;
    std::size_t count;
  };
  std::deque<Chunk> m_Backlog;
  std::size_t m_nBacklogBytes = 0;
  uint64_t m_nDropped = 0;
  std::atomic<bool> m_bAccepting{true};
  bool m_bStopping = false;
  // Held while a line goes into the log file, which may wait for room in the
  // main writer's queue: never held with m_Lock.
  ACE_Thread_Mutex m_NotifyLock;
  bool m_bNotifyOff = false;
  int64_t m_nStopDeadlineMs = 0;

  // The thread's own.
  toviport::CollectorSocket m_Socket;
  unsigned m_nBackOffMs = 0;
  std::string m_strLastError;
  bool m_bStarted = false;
  toviport::ThreadHandle m_hThread{};
};

#endif
