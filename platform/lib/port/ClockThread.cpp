// ClockThread.cpp - POSIX implementations of the clock and thread calls.
#include "port/ClockThread.h"

#include <pthread.h>
#include <sched.h>
#include <sys/time.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <ace/OS_NS_sys_time.h>
#include <ace/OS_NS_time.h>
#include <ace/OS_NS_unistd.h>
#include <ace/Thread.h>
#include <ace/Time_Value.h>

namespace toviport {

int64_t CurrentTime() { return static_cast<int64_t>(std::time(nullptr)); }

void CurrentTimeOfDay(int64_t& seconds, long& microseconds) {
  // Through the vDSO: no system call on the tracing thread.
  struct timespec now;
  ::clock_gettime(CLOCK_REALTIME, &now);
  seconds = static_cast<int64_t>(now.tv_sec);
  microseconds = static_cast<long>(now.tv_nsec / 1000);
}

std::tm LocalTime(int64_t seconds) {
  std::tm local{};
  const time_t t = static_cast<time_t>(seconds);
  ACE_OS::localtime_r(&t, &local);
  return local;
}

ACE_Time_Value DeadlineAfterMs(unsigned milliseconds) {
  ACE_Time_Value wait;
  wait.msec(static_cast<long>(milliseconds));
  return ACE_OS::gettimeofday() + wait;
}

namespace {
thread_local uint32_t t_threadId __attribute__((tls_model("initial-exec"))) = 0;

// A forked child's only thread inherits the parent thread's remembered id.
void ForgetThreadIdInChild() { t_threadId = 0; }
const int g_atforkRegistered = ::pthread_atfork(nullptr, nullptr, ForgetThreadIdInChild);
}  // namespace

uint32_t CurrentThreadId() {
  (void)g_atforkRegistered;
  if (t_threadId == 0) t_threadId = static_cast<uint32_t>(::gettid());
  return t_threadId;
}

bool MakeBackgroundThread() {
  struct sched_param param {};
  param.sched_priority = 0;
  return ::sched_setscheduler(0, SCHED_BATCH, &param) == 0;
}

bool StartThread(ThreadEntry entry, void* arg, ThreadHandle& handle) {
  return ACE_Thread::spawn(entry, arg, THR_NEW_LWP | THR_JOINABLE, nullptr, &handle, 0) != -1;
}

void JoinThread(ThreadHandle handle) { ACE_Thread::join(handle, nullptr); }

void SleepMs(unsigned milliseconds) {
  ACE_Time_Value delay;
  delay.msec(static_cast<long>(milliseconds));
  ACE_OS::sleep(delay);
}

void SleepUs(unsigned microseconds) {
  ACE_Time_Value delay(0, static_cast<suseconds_t>(microseconds));
  ACE_OS::sleep(delay);
}

int64_t SteadyMs() {
  struct timespec now;
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

}  // namespace toviport
