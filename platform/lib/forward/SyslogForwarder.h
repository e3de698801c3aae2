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

#include "port/CollectorSocket.h"
#include "port/Lock.h"
#include "port/ThreadAnnotations.h"
#include "port/ThreadRole.h"
#include "port/ToviPort.h"

class SyslogForwarder {
public:
  struct Settings {
    toviport::Transport transport = toviport::Transport::kTcp;
    toviport::TlsFiles tls;
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
  // The TLS files, after Parse; false with why set when one cannot be read
  // or a certificate comes without its key. Only a tls:// target reads them.
  static bool ParseTls(const std::string& caFile, const std::string& certFile,
                       const std::string& keyFile, Settings& out, std::string& why);

  // notify writes one line into the main log file; it is called from the
  // forwarder's thread until Stop begins.
  SyslogForwarder(const Settings& settings, std::function<void(const std::string&)> notify);
  ~SyslogForwarder();
  SyslogForwarder(const SyslogForwarder&) = delete;
  SyslogForwarder& operator=(const SyslogForwarder&) = delete;

  int Facility() const { return m_settings.facility; }

  // Takes count framed messages (see syslogmessage::AppendFramed) into the
  // backlog, or drops and counts them when the bound has no room; framed is
  // empty afterwards. Waits for nothing but the backlog's lock.
  void Submit(std::string& framed, std::size_t count) EXCLUDES(m_lock);

  // False while the backlog is full: a writer then need not format its
  // records' messages at all, only count them with Skipped.
  bool Accepting() const { return m_accepting.load(std::memory_order_relaxed); }
  void Skipped(std::size_t count) EXCLUDES(m_lock);

  // From here on nothing more goes into the log file; waits for a line
  // that is being written.
  void DisableNotify() EXCLUDES(m_lock, m_notifyLock);

  // Sends what it can for about a second, then closes and joins the thread.
  // Calls after the first return at once.
  void Stop() EXCLUDES(m_lock, m_notifyLock);

private:
  struct Chunk {
    std::string framed;
    std::size_t count = 0;
  };

  static void* Run(void* arg);
  void Loop() EXCLUDES(m_lock, m_notifyLock);
  // Waits until there is something to send or a count of drops to report,
  // and takes the backlog's head (if any) and that count. False when the
  // thread is to end: stopping with nothing left, or past the stop's window.
  bool TakeNext(Chunk& chunk, uint64_t& dropped) EXCLUDES(m_lock);
  // Settles the backlog's byte count for a chunk that went out whole, or puts
  // what is left of it back at the head. False when the thread is to end: a
  // send failed while stopping.
  bool Settle(Chunk& chunk, std::size_t offset, bool sent) EXCLUDES(m_lock);
  // Takes the reported drops off the count.
  void ForgetDropped(uint64_t dropped) EXCLUDES(m_lock);
  // The forwarder's thread only, like the functions below.
  bool Connect() EXCLUDES(m_lock, m_notifyLock);
  // Sends the frames of chunk from offset on; offset ends past the last
  // frame that went out whole.
  bool Send(const std::string& chunk, std::size_t& offset);
  // Sleeps for the current back-off, unless a stop comes first.
  void BackOff() EXCLUDES(m_lock);
  // Writes line into the main log file unless DisableNotify came first. That
  // may wait for room in the main writer's queue, which must never hold up
  // the backlog: never called with m_lock held.
  void Notify(const std::string& line) EXCLUDES(m_lock, m_notifyLock);

  const Settings m_settings;

  toviport::Mutex m_lock;
  toviport::Condition m_wake;
  std::deque<Chunk> m_backlog GUARDED_BY(m_lock);
  std::size_t m_backlogBytes GUARDED_BY(m_lock) = 0;
  uint64_t m_dropped GUARDED_BY(m_lock) = 0;
  bool m_stopping GUARDED_BY(m_lock) = false;
  int64_t m_stopDeadlineMs GUARDED_BY(m_lock) = 0;
  std::atomic<bool> m_accepting{true};

  // Held while a line goes into the log file: never taken with m_lock held.
  toviport::Mutex m_notifyLock;
  std::function<void(const std::string&)> m_notify GUARDED_BY(m_notifyLock);
  bool m_notifyOff GUARDED_BY(m_notifyLock) = false;

  // The thread's own; Stop takes them over once the thread has been joined.
  toviport::ThreadRole m_threadRole;
  toviport::CollectorSocket m_socket;
  unsigned m_backOffMs = 0;
  std::string m_lastError;

  // Set by the constructor, before any writer can reach the forwarder.
  bool m_started = false;
  toviport::ThreadHandle m_thread{};
};

#endif
