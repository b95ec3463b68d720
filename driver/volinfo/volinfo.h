// What a volume tells of itself, and its label.
#pragma once

#include "frame/row.h"

NTSTATUS GvDoQueryVolInfo(IrpContext* context, GvOutcome* outcome);
NTSTATUS GvDoSetVolInfo(IrpContext* context, GvOutcome* outcome);
