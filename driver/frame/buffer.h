// The caller's data: where this code can touch it.
#pragma once

#include "frame/nt.h"

// The address at which this code can touch the request's data; null if there is none or it cannot be mapped. Without an
// MDL it is the caller's own address, unprobed.
[[nodiscard]] void* GvUtlMapBufferForIo(PIRP irp);

// The same, probed for the access (IoReadAccess or IoWriteAccess) when it is a user-mode caller's own address; one that
// came through a worker is a system address. STATUS_ACCESS_VIOLATION for a bad one, STATUS_UNSUCCESSFUL for none; the
// caller traces both.
[[nodiscard]] NTSTATUS GvUtlMapProbedBuffer(PIRP irp, ULONG length, LOCK_OPERATION access, void** buffer);
