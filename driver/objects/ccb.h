// The per-open record.
#pragma once

#include "frame/records.h"

[[nodiscard]] NTSTATUS GvCcbCreateCcb(bool deleteOnClose, Ccb** ccb);
// STATUS_INVALID_PARAMETER for null.
NTSTATUS GvCcbDeleteCcb(Ccb* ccb);
