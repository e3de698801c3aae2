// FatalSignals.h - catching the signals that end a process on a fault, so
// that it can say why before it dies of them.
//
// The hook runs on the faulting thread, on an alternate stack (so that a
// stack overflow is caught too), and must keep to what is safe there. Once
// it returns, the disposition that was there before is put back and given
// the signal (a handler of the program's own, or the default), and the
// signal is raised again: the process dies of the original signal, with its
// core dump, never of an exit of ours.
#ifndef TOVI_PORT_FATALSIGNALS_H
#define TOVI_PORT_FATALSIGNALS_H

#include <cstdint>

namespace toviport {

struct FatalSignal {
  int number = 0;
  int code = 0;              // si_code: why the system sent it
  uintptr_t address = 0;     // the faulting address, where the signal has one
  uintptr_t pc = 0;          // the faulting instruction, 0 when unknown
  uint32_t thread = 0;       // CurrentThreadId() of the faulting thread
};
using FatalSignalHook = void (*)(const FatalSignal& signal);

// Hooks SIGSEGV, SIGBUS, SIGFPE, SIGILL and SIGABRT, keeping what was
// installed before; false when one could not be hooked (none is then).
// The calling thread gets an alternate stack.
bool InstallFatalSignalHook(FatalSignalHook hook);
// Puts back what was installed before.
void RemoveFatalSignalHook();

// Gives the calling thread an alternate signal stack, once per thread;
// freed when the thread ends. Cheap after the first call.
void EnsureAltStack();

// "SIGSEGV" and the like; "signal N" for others. Async-signal-safe.
const char* SignalName(int number);

// Blocks the calling thread for good: a thread that faulted while another
// reports waits here until the process dies. Async-signal-safe.
[[noreturn]] void WaitForever();

// A semaphore whose Post is async-signal-safe, for a hook to wake a thread
// that does the unsafe work and to wait for it with a bound.
class SignalSemaphore {
public:
  SignalSemaphore();
  ~SignalSemaphore();
  SignalSemaphore(const SignalSemaphore&) = delete;
  SignalSemaphore& operator=(const SignalSemaphore&) = delete;
  void Post();
  void Wait();
  // False when waitMs passed first.
  bool WaitFor(unsigned waitMs);

private:
  alignas(16) unsigned char m_storage[64];
};

}  // namespace toviport

#endif
