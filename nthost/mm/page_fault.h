// Page faults on views, as the fault handler asks about them.
#pragma once

#include <ntifs.h>

namespace nthost::mm {

// STATUS_SUCCESS: the page is there and allows the access. STATUS_NOT_MAPPED_VIEW: the address is in no view of the
// current thread's process. Else the exception's status. May block and call the file system.
[[nodiscard]] NTSTATUS ResolvePageFault(void* address, bool write);

} // namespace nthost::mm
