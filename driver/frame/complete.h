// The end of a request.
#pragma once

#include "frame/nt.h"

// Closing trace, information and status, completion. Returns the status.
NTSTATUS GvCompleteRequest(const char* function, PIRP irp, NTSTATUS status, ULONG_PTR information);
