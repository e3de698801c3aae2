// CrashReporter.h - the crash report: when a thread faults, one record in
// the main log names the signal and the faulting thread's frames, and the
// writers put out what was accepted before the fault, all within a bound,
// before the process dies of the original signal.
//
// The work is split by what is safe where. The hook, on the faulting thread
// and its alternate stack, only notes the signal, captures the return
// addresses and wakes the reporter's thread; that thread, started when the
// reporter is built, names the frames, traces the report (held-back records
// come out before it, as before any assertion) and lets the writers drain.
// The hook waits for it at most kHookWaitMs: a reporter stuck on a lock the
// faulting thread held, or a writer that was the faulting thread, never
// keeps the process from dying. Only the first thread to fault reports; any
// other waits for the end.
#ifndef TOVI_FORWARD_CRASHREPORTER_H
#define TOVI_FORWARD_CRASHREPORTER_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "port/FatalSignals.h"
#include "port/ToviPort.h"

class CrashReporter {
public:
  // report traces the report's text; drain waits, until the given SteadyMs
  // deadline at most, for the writers to put out what they hold.
  using Report = std::function<void(const std::string& text)>;
  using Drain = std::function<void(int64_t deadlineMs)>;

  // Installs the hook; Installed() says whether it took. One reporter per
  // process.
  CrashReporter(Report report, Drain drain);
  // Removes the hook and ends the thread.
  ~CrashReporter();
  CrashReporter(const CrashReporter&) = delete;
  CrashReporter& operator=(const CrashReporter&) = delete;

  bool Installed() const { return m_installed; }

  // The hook's share of a bound that keeps the whole report within a few
  // seconds: the drain gets kDrainMs of it.
  static constexpr unsigned kHookWaitMs = 4000;
  static constexpr unsigned kDrainMs = 2000;

private:
  static void Hook(const toviport::FatalSignal& signal);
  static void* Run(void* self);
  void WriteReport();
  std::string ReportText() const;

  Report m_report;
  Drain m_drain;
  toviport::SignalSemaphore m_start;
  toviport::SignalSemaphore m_done;
  std::atomic<bool> m_quit{false};
  bool m_installed = false;
  bool m_started = false;
  toviport::ThreadHandle m_thread{};
};

#endif
