// The end of a handle and of a file object.
#pragma once

#include "frame/row.h"

NTSTATUS GvDoCleanup(IrpContext* context, GvOutcome* outcome);
NTSTATUS GvDoClose(IrpContext* context, GvOutcome* outcome);
