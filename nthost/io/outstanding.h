// Requests that services issued and that have not ended: per file object, for cancelling, and the asynchronous ones
// also per thread, for its exit. Each list has a lock of its own; none is held while a driver is called.
#pragma once

#include "io/irp.h"

namespace nthost::io {

// Puts a request that is about to be sent on its file object's list, and an asynchronous one on its thread's.
void Enlist(IrpRecord* record);
// Takes it off again, if it was put on, and wakes who waits for that.
void Delist(IrpRecord* record);

// Takes an asynchronous request off its thread's list only.
void DetachFromThread(IrpRecord* record);

// Which of a file object's requests are meant.
struct CancelScope {
    PETHREAD Thread;   // only this thread's asynchronous ones; null: any thread's of Process, waited-for ones too
    PEPROCESS Process; // null: any
    PIO_STATUS_BLOCK StatusBlock; // only the one with this status block; null: all
};

// Cancels what is out now; the number of requests that were.
unsigned CancelFileRequests(PFILE_OBJECT file, const CancelScope& scope);
// Until none of the thread's asynchronous requests on the file is left.
void AwaitFileRequests(PFILE_OBJECT file, PETHREAD thread);
// In nanoseconds; a test that provokes the finding shortens it.
extern int64_t CancelPatience;
// A thread ends: cancels its requests and waits for them. If that takes longer than CancelPatience, a finding
// "irp-not-cancelled".
void CancelThreadRequests(_ETHREAD* thread);

} // namespace nthost::io
