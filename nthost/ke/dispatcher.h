// Inside of ke: the dispatcher lock, and what the kinds of objects have to do under it.
#pragma once

#include <mutex>

#include "ke/thread.h"
#include "ke/word_lock.h"

namespace nthost::ke {

// Guards every signal state and list of waiters, the owners of mutexes, the queues of timers and DPCs, and the threads'
// queues of APCs. One lock for all, so that a wait for all of several objects takes them in one step.
extern WordLock dispatcherLock;

struct WaitRecord;
using WakeChain = WaitRecord*;

// Under the lock: hands the object's state to its waiters. The chain is to be woken after the lock is given up.
[[nodiscard]] WakeChain ReleaseWaiters(DISPATCHER_HEADER* object);
// Under the lock: ends the wait with this status. For a wait that the thread is in.
[[nodiscard]] WakeChain EndWait(WaitRecord* wait, NTSTATUS status);
// Without the lock: the woken may free the objects, and their own records, at once.
void WakeAll(WakeChain chain);

// Under the lock: what an APC or an alert finds the thread in.
bool WaitsForUserApcs(const WaitRecord* wait);
bool WaitsForKernelApcs(const WaitRecord* wait);
bool WaitsForAlerts(const WaitRecord* wait, KPROCESSOR_MODE mode);

} // namespace nthost::ke
