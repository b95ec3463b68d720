// The worker pool of a volume: a fixed number of system threads, made at mount, stopped at unmount, and one more for
// each lane of paging requests. A pended request runs its inner routine again there, from the top.
#pragma once

#include "frame/records.h"

// The size of the pool is count; the array has GvReservedWorkers threads more, and is the caller's to free. All run, or
// none.
[[nodiscard]] NTSTATUS FspStartWorkerThreads(Vcb* vcb, PKEVENT stopEvent, ULONG count, HANDLE** threads);
// Waits for every thread to end; a worker inside a plugin call holds it up. The first failure is the result;
// the remaining ones are waited for all the same.
NTSTATUS FspStopWorkerThreads(PKEVENT stopEvent, ULONG count, HANDLE* threads);
