// FatalSignals.cpp - sigaction, the alternate stacks and the semaphore.
#include "port/FatalSignals.h"

#include <semaphore.h>
#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>

#include "port/ClockThread.h"

namespace toviport {
namespace {
constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
constexpr int kSignalCount = sizeof kSignals / sizeof kSignals[0];
// Room for the hook's own work and the unwinder's, well past MINSIGSTKSZ.
constexpr std::size_t kAltStackBytes = 128 * 1024;

struct sigaction g_previous[kSignalCount];
std::atomic<FatalSignalHook> g_hook{nullptr};

int IndexOf(int number) {
  for (int i = 0; i < kSignalCount; ++i) {
    if (kSignals[i] == number) return i;
  }
  return -1;
}

uintptr_t FaultingPc(void* context) {
  if (context == nullptr) return 0;
  const ucontext_t* uc = static_cast<const ucontext_t*>(context);
#if defined(__x86_64__)
  return static_cast<uintptr_t>(uc->uc_mcontext.gregs[REG_RIP]);
#elif defined(__aarch64__)
  return static_cast<uintptr_t>(uc->uc_mcontext.pc);
#else
  (void)uc;
  return 0;
#endif
}

// Gives the signal to what was there before us, then lets it end the
// process: a previous handler runs as it would have; the default action
// runs once this handler returns, with the signal still pending.
void PassOn(int number, siginfo_t* info, void* context) {
  const int i = IndexOf(number);
  if (i < 0) return;
  ::sigaction(number, &g_previous[i], nullptr);
  const struct sigaction& before = g_previous[i];
  if ((before.sa_flags & SA_SIGINFO) != 0 && before.sa_sigaction != nullptr) {
    before.sa_sigaction(number, info, context);
  } else if ((before.sa_flags & SA_SIGINFO) == 0 && before.sa_handler != SIG_DFL &&
             before.sa_handler != SIG_IGN) {
    before.sa_handler(number);
  }
  struct sigaction deflt = {};
  deflt.sa_handler = SIG_DFL;
  ::sigemptyset(&deflt.sa_mask);
  ::sigaction(number, &deflt, nullptr);
  ::raise(number);
}

void OnFatalSignal(int number, siginfo_t* info, void* context) {
  const int savedErrno = errno;
  if (FatalSignalHook hook = g_hook.load(std::memory_order_acquire)) {
    FatalSignal signal;
    signal.number = number;
    signal.code = info != nullptr ? info->si_code : 0;
    const bool hasAddress = number == SIGSEGV || number == SIGBUS || number == SIGFPE ||
                            number == SIGILL;
    signal.address = info != nullptr && hasAddress ? reinterpret_cast<uintptr_t>(info->si_addr) : 0;
    signal.pc = FaultingPc(context);
    signal.thread = CurrentThreadId();
    hook(signal);
  }
  errno = savedErrno;
  PassOn(number, info, context);
}

// The calling thread's alternate stack, taken back when the thread ends.
struct AltStack {
  void* memory = nullptr;
  ~AltStack() {
    if (memory == nullptr) return;
    stack_t off = {};
    off.ss_flags = SS_DISABLE;
    ::sigaltstack(&off, nullptr);
    ::munmap(memory, kAltStackBytes);
  }
};
thread_local AltStack t_altStack;
thread_local bool t_altStackTried __attribute__((tls_model("initial-exec"))) = false;

sem_t* SemOf(unsigned char* storage) { return reinterpret_cast<sem_t*>(storage); }
}  // namespace

bool InstallFatalSignalHook(FatalSignalHook hook) {
  EnsureAltStack();
  g_hook.store(hook, std::memory_order_release);
  struct sigaction action = {};
  action.sa_sigaction = &OnFatalSignal;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  ::sigemptyset(&action.sa_mask);
  for (int i = 0; i < kSignalCount; ++i) {
    if (::sigaction(kSignals[i], &action, &g_previous[i]) == 0) continue;
    while (--i >= 0) ::sigaction(kSignals[i], &g_previous[i], nullptr);
    g_hook.store(nullptr, std::memory_order_release);
    return false;
  }
  return true;
}

void RemoveFatalSignalHook() {
  for (int i = 0; i < kSignalCount; ++i) ::sigaction(kSignals[i], &g_previous[i], nullptr);
  g_hook.store(nullptr, std::memory_order_release);
}

void EnsureAltStack() {
  if (t_altStackTried) return;
  t_altStackTried = true;
  stack_t current = {};
  // A stack the program set up itself stays.
  if (::sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE) == 0) return;
  void* memory = ::mmap(nullptr, kAltStackBytes, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
  if (memory == MAP_FAILED) return;
  stack_t stack = {};
  stack.ss_sp = memory;
  stack.ss_size = kAltStackBytes;
  if (::sigaltstack(&stack, nullptr) != 0) {
    ::munmap(memory, kAltStackBytes);
    return;
  }
  t_altStack.memory = memory;
}

const char* SignalName(int number) {
  switch (number) {
    case SIGSEGV: return "SIGSEGV";
    case SIGBUS: return "SIGBUS";
    case SIGFPE: return "SIGFPE";
    case SIGILL: return "SIGILL";
    case SIGABRT: return "SIGABRT";
    default: return "signal";
  }
}

void WaitForever() {
  for (;;) ::pause();
}

SignalSemaphore::SignalSemaphore() {
  static_assert(sizeof(sem_t) <= sizeof m_storage, "room for a sem_t");
  ::sem_init(SemOf(m_storage), 0, 0);
}

SignalSemaphore::~SignalSemaphore() { ::sem_destroy(SemOf(m_storage)); }

void SignalSemaphore::Post() { ::sem_post(SemOf(m_storage)); }

void SignalSemaphore::Wait() {
  while (::sem_wait(SemOf(m_storage)) != 0 && errno == EINTR) {
  }
}

bool SignalSemaphore::WaitFor(unsigned waitMs) {
  struct timespec until;
  ::clock_gettime(CLOCK_REALTIME, &until);
  until.tv_sec += waitMs / 1000;
  until.tv_nsec += static_cast<long>(waitMs % 1000) * 1000000L;
  if (until.tv_nsec >= 1000000000L) {
    until.tv_sec += 1;
    until.tv_nsec -= 1000000000L;
  }
  for (;;) {
    if (::sem_timedwait(SemOf(m_storage), &until) == 0) return true;
    if (errno != EINTR) return false;
  }
}

}  // namespace toviport
