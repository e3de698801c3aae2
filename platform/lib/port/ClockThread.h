// ClockThread.h - clocks, deadlines, sleeps and threads.
#ifndef TOVI_PORT_CLOCKTHREAD_H
#define TOVI_PORT_CLOCKTHREAD_H

#include <cstdint>
#include <ctime>

#include <ace/OS_NS_Thread.h>
#include <ace/Time_Value.h>

namespace toviport {

// Seconds since the epoch.
int64_t CurrentTime();
// The time of day to the microsecond, as the system clock gives it.
void CurrentTimeOfDay(int64_t& seconds, long& microseconds);

// The local (zone-adjusted) calendar time of a moment.
std::tm LocalTime(int64_t seconds);

// The absolute time, on the clock that ACE's timed waits use, that lies
// milliseconds from now.
ACE_Time_Value DeadlineAfterMs(unsigned milliseconds);

// The kernel's id of the calling thread, remembered per thread, since the
// trace path asks for it on every call.
uint32_t CurrentThreadId();

// Marks the calling thread as background work: it still gets its fair share
// of the processor, but waking up it does not preempt the threads that are
// running. False when the system refused.
bool MakeBackgroundThread();

// A joinable thread running entry(arg); false when the system refused one.
// Every started thread must be joined once.
typedef void* (*ThreadEntry)(void*);
typedef ACE_hthread_t ThreadHandle;
bool StartThread(ThreadEntry entry, void* arg, ThreadHandle& handle);
void JoinThread(ThreadHandle handle);

// Suspends the calling thread.
void SleepMs(unsigned milliseconds);
void SleepUs(unsigned microseconds);

// A steady clock in milliseconds, for intervals only.
int64_t SteadyMs();

}  // namespace toviport

#endif
