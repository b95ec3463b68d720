// Directory control: the listing query.
#pragma once

#include "frame/records.h"

[[nodiscard]] NTSTATUS GvDoQueryDirectory(IrpContext* context, ULONG* information);
