// The thread that lets timers expire and runs deferred procedure calls.
#pragma once

#include <cstddef>

#include <ntifs.h>

namespace nthost::ke {

// Before the thread, which the host makes.
void PrepareClock();
VOID NTAPI RunClock(PVOID);
// The thread ends soon. Timers that are still set stay so, but do not come any more.
void EndClock();

// The memory goes away: timers in it that are set are taken out of the queue.
void ForgetTimersIn(const void* memory, size_t size);
void ForgetAllTimers();

} // namespace nthost::ke
