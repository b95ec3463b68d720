// Handle values: which table, which entry. The kernel's own.
#pragma once

#include "ob/handle_table.h"

namespace nthost::ob {

// Resolves a handle of the process, a kernel handle (kernel mode only) or a pseudo handle of the current thread, and
// references the object.
[[nodiscard]] NTSTATUS ReferenceHandle(PEPROCESS process, HANDLE handle, KPROCESSOR_MODE mode, HandleEntry* entry);

// What ObReferenceObjectByHandle does, for the kernel's own use: a fault made for a driver's call does not meet it.
[[nodiscard]] NTSTATUS ReferenceObjectByHandle(HANDLE handle, ACCESS_MASK access, POBJECT_TYPE type,
                                               KPROCESSOR_MODE mode, PVOID* object,
                                               POBJECT_HANDLE_INFORMATION information);

// Desired access as this type's specific rights: generic rights mapped, MAXIMUM_ALLOWED as everything in `maximum`.
ACCESS_MASK MapAccess(ACCESS_MASK desired, POBJECT_TYPE type, ACCESS_MASK maximum);

} // namespace nthost::ob
