// Asynchronous procedure calls: what a thread is to call itself, in its own context, when it can. A kernel-mode one
// runs where normal kernel APCs are not disabled: in the next wait, which goes on afterwards, when a critical or
// guarded region ends, when the IRQL drops, when a service returns. User-mode ones run, all that are queued, when a
// service that was interrupted for them returns to user mode. Alerts are the flag beside them: they only end alertable
// waits.
#pragma once

#include "ke/thread.h"

namespace nthost::ke {

struct Apc {
    LIST_ENTRY Link; // in the thread's queue, under the dispatcher lock
    // Exactly one of the two is called, with the Apc out of the queue and nothing held: on the thread, or, when it ends
    // first, on the way out. The memory is the routine's to give back.
    void (*Deliver)(Apc* apc);
    void (*Discard)(Apc* apc);
};

// False, with nothing queued, when the thread takes no more. The caller keeps the thread's record alive.
[[nodiscard]] bool QueueApc(_ETHREAD* thread, KPROCESSOR_MODE mode, Apc* apc);
void AlertThread(_ETHREAD* thread, KPROCESSOR_MODE mode);
// Takes the alert of the mode; true if there was one. User APCs that are queued run when the service returns.
[[nodiscard]] bool TestAlert(KPROCESSOR_MODE mode);
// The current thread ends: nothing more is queued, and what is gets discarded.
void RundownApcs(_ETHREAD* thread);

void DeliverKernelApcs(_ETHREAD* thread);
// Where the conditions for kernel APCs may have come to hold.
inline void AllowKernelApcs(_ETHREAD* thread)
{
    if (thread->HasKernelApcs.load(std::memory_order_relaxed)) DeliverKernelApcs(thread);
}

// The end of every Nt service: runs what came for the thread, and gives the service's status on.
NTSTATUS LeaveService(NTSTATUS status);

} // namespace nthost::ke
