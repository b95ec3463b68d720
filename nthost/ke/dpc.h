// Inside of ke: the queue of deferred procedure calls.
#pragma once

#include <ntifs.h>

namespace nthost::ke {

// Under the dispatcher lock. False if it is queued already. The clock's thread has to be woken then.
bool QueueDpc(PRKDPC dpc, PVOID argument1, PVOID argument2);
void WakeClock();
// On the clock's thread: until the queue is empty.
void RunDpcs();
// Before the clock starts.
void ResetDpcs();

} // namespace nthost::ke
