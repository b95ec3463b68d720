// The end of a request that the I/O manager issued: buffers, status block, events, lists, references. Runs on the
// issuing thread, or on the completing one for an asynchronous request that outlived its dispatch routine.
#pragma once

#include "io/irp.h"

namespace nthost::io {

// Completion has passed the topmost location.
void PassTop(IrpRecord* record);

// System buffer and memory descriptors of a request that ends, or that was never sent.
void FreeBuffers(PIRP irp);

// Sends the request to the device, waits for it unless it is asynchronous, and finishes it. An asynchronous request
// that is still out gives STATUS_PENDING and may be gone already.
NTSTATUS SendRequest(PDEVICE_OBJECT device, IrpRecord* record, IO_STATUS_BLOCK* result = nullptr);

} // namespace nthost::io
