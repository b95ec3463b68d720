// The data of files: reads, writes, flushes, byte-range locks.
#pragma once

#include "frame/row.h"

NTSTATUS GvDoRead(IrpContext* context, GvOutcome* outcome);
NTSTATUS GvDoWrite(IrpContext* context, GvOutcome* outcome);
NTSTATUS GvDoFlushBuffers(IrpContext* context, GvOutcome* outcome);
NTSTATUS GvDoLockControl(IrpContext* context, GvOutcome* outcome);
