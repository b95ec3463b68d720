// Handle values: which table, which entry. Private to ob/ and the services on handles.
#pragma once

#include "ob/handle_table.h"

namespace nthost::ob {

// Resolves a handle of the process, a kernel handle (kernel mode only) or a pseudo handle of the current thread, and
// references the object.
[[nodiscard]] NTSTATUS ReferenceHandle(PEPROCESS process, HANDLE handle, KPROCESSOR_MODE mode, HandleEntry* entry);

// Desired access as this type's specific rights: generic rights mapped, MAXIMUM_ALLOWED as everything in `maximum`.
ACCESS_MASK MapAccess(ACCESS_MASK desired, POBJECT_TYPE type, ACCESS_MASK maximum);

} // namespace nthost::ob
