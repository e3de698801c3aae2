// CrashReporter.cpp - the hook, the reporter's thread and the report's text.
#include "forward/CrashReporter.h"

#include <cstdio>

#include "logwriter/LogFormat.h"
#include "logwriter/ToviLogWriter.h"
#include "port/StackTrace.h"

namespace {
constexpr int kMaxFrames = 64;
// A record's message holds 2048 bytes: frames past that are counted only,
// and a frame's description is cut short (a C++ name may run long).
constexpr std::size_t kMaxReport = 2000;
constexpr std::size_t kMaxFrameText = 240;

// What the hook noted, for the reporter's thread. Written by the first
// faulting thread only, before it posts the reporter's semaphore.
struct Fault {
  toviport::FatalSignal signal;
  uintptr_t pcs[kMaxFrames];
  int frames = 0;
};
Fault g_fault;
// The thread that reports: 0 until one faults.
std::atomic<uint32_t> g_reportingThread{0};
std::atomic<CrashReporter*> g_reporter{nullptr};
// The reporter's thread, whose record is the only one taken after a fault.
std::atomic<uint32_t> g_reporterThread{0};
}  // namespace

CrashReporter::CrashReporter(Report report, Drain drain)
    : m_report(std::move(report)), m_drain(std::move(drain)) {
  toviport::PrepareStackTrace();
  CrashReporter* none = nullptr;
  if (!g_reporter.compare_exchange_strong(none, this)) return;
  m_started = toviport::StartThread(&CrashReporter::Run, this, m_thread);
  m_installed = m_started && toviport::InstallFatalSignalHook(&CrashReporter::Hook);
  if (!m_installed) g_reporter.store(nullptr);
}

CrashReporter::~CrashReporter() {
  if (m_installed) toviport::RemoveFatalSignalHook();
  if (g_reporter.load() == this) g_reporter.store(nullptr);
  if (!m_started) return;
  m_quit.store(true, std::memory_order_release);
  m_start.Post();
  toviport::JoinThread(m_thread);
}

void CrashReporter::Hook(const toviport::FatalSignal& signal) {
  CrashReporter* reporter = g_reporter.load(std::memory_order_acquire);
  if (reporter == nullptr) return;
  uint32_t none = 0;
  if (!g_reportingThread.compare_exchange_strong(none, signal.thread)) {
    // A fault inside the report itself goes straight on to die; any other
    // thread waits while the first one reports.
    if (none == signal.thread) return;
    toviport::WaitForever();
  }
  // The records accepted so far are what the report promises; later ones
  // would only keep the writers from draining.
  ToviLogWriter::TakeRecordsOnlyFrom(g_reporterThread.load(std::memory_order_acquire));
  g_fault.signal = signal;
  g_fault.frames = toviport::CaptureStack(g_fault.pcs, kMaxFrames, signal.pc);
  reporter->m_start.Post();
  reporter->m_done.WaitFor(kHookWaitMs);
}

void* CrashReporter::Run(void* self) {
  CrashReporter* reporter = static_cast<CrashReporter*>(self);
  g_reporterThread.store(toviport::CurrentThreadId(), std::memory_order_release);
  reporter->m_start.Wait();
  if (reporter->m_quit.load(std::memory_order_acquire)) return nullptr;
  reporter->WriteReport();
  reporter->m_done.Post();
  return nullptr;
}

void CrashReporter::WriteReport() {
  try {
    m_report(ReportText());
  } catch (...) {
    // No memory for the report: what was accepted is still drained.
  }
  m_drain(toviport::SteadyMs() + kDrainMs);
}

std::string CrashReporter::ReportText() const {
  const toviport::FatalSignal& signal = g_fault.signal;
  char line[256];
  std::snprintf(line, sizeof line, "%.*s%s (code %d, address 0x%lx) in thread 0x%x of process %u",
                static_cast<int>(logformat::kCrashLead.size()), logformat::kCrashLead.data(),
                toviport::SignalName(signal.number), signal.code,
                static_cast<unsigned long>(signal.address), signal.thread,
                static_cast<unsigned>(toviport::CurrentProcessId()));
  std::string text = line;
  for (int i = 0; i < g_fault.frames; ++i) {
    std::snprintf(line, sizeof line, "\n%.*s%d 0x%lx ", static_cast<int>(logformat::kFrameLead.size()),
                  logformat::kFrameLead.data(), i, static_cast<unsigned long>(g_fault.pcs[i]));
    std::string frame = line + toviport::DescribeFrame(g_fault.pcs[i]).substr(0, kMaxFrameText);
    if (text.size() + frame.size() > kMaxReport) {
      text += "\n" + std::string(logformat::kFrameLead) + "... " + std::to_string(g_fault.frames - i) +
              " more frame(s)";
      break;
    }
    text += frame;
  }
  return text;
}
