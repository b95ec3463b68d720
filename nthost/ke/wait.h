// The wait core's inner seam: one sleep and one wake-up per thread, used by dispatcher objects and by resources.
// A thread waits for one thing at a time, so its record's WakeWord is enough.
#pragma once

#include "ke/park.h"
#include "ke/thread.h"

namespace nthost::ke {

// Call before the thread is put into any queue from which it can be woken.
inline void ArmWake(_ETHREAD* thread) { thread->WakeWord.store(0, std::memory_order_relaxed); }
// Sleeps until Wake; false when the deadline passed first. The wake-up may then still be on its way.
bool AwaitWake(_ETHREAD* thread, int64_t deadline = NoDeadline);
// Exactly one per ArmWake that was published. The thread and everything on its stack may be gone on return.
void Wake(_ETHREAD* thread);

void InitializeHeader(DISPATCHER_HEADER* header, UCHAR type, LONG state);
// Makes the object signalled for good (ends of threads and processes) and releases its waiters.
void SignalHeader(DISPATCHER_HEADER* header);
// KeReleaseSemaphore for the host's own use, where no request of the caller's waits for a permit.
LONG ReleaseSemaphore(PRKSEMAPHORE semaphore, LONG adjustment);
// The thread ends: mutexes that it still owns become free, and the next owners are told.
void AbandonMutexes(_ETHREAD* thread);

// DISPATCHER_HEADER.Type; events have the numbers of EVENT_TYPE, timers those of TIMER_TYPE above kTimerObject.
constexpr UCHAR kMutexObject = 2;
constexpr UCHAR kProcessObject = 3;
constexpr UCHAR kSemaphoreObject = 5;
constexpr UCHAR kThreadObject = 6;
constexpr UCHAR kTimerObject = 8;

int64_t MonotonicNow();  // CLOCK_MONOTONIC nanoseconds
int64_t SystemTimeNow(); // 100 ns since 1601

} // namespace nthost::ke
