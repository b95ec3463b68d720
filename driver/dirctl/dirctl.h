// Directory control: the listing query.
#pragma once

#include "frame/row.h"
#include "frame/records.h"

NTSTATUS GvDoDirControl(IrpContext* context, GvOutcome* outcome);
[[nodiscard]] NTSTATUS GvDoQueryDirectory(IrpContext* context, ULONG* information);
