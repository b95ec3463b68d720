// The worker pool of a volume: a fixed number of system threads, made at mount, stopped at unmount. A pended request
// runs its inner routine again there, from the top.
#pragma once

#include "frame/records.h"

// All threads run, or none; the array is the caller's to free.
[[nodiscard]] NTSTATUS FspStartWorkerThreads(Vcb* vcb, PKEVENT stopEvent, ULONG count, HANDLE** threads);
// Waits for every thread to end; a worker inside a plugin call holds it up. A failure leaves the remaining ones.
NTSTATUS FspStopWorkerThreads(PKEVENT stopEvent, ULONG count, HANDLE* threads);
