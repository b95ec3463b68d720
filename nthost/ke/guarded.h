// One call under a guard, for nthost's own use. Nothing of the body may own anything: an exception ends it without
// running destructors.
#pragma once

#include <ntifs.h>

namespace nthost::ke {

// STATUS_SUCCESS, or the status of the exception that ended the body. Not inlined, so that what the body changes in its
// caller's frame has had its address taken and survives the jump.
template <typename Body>
[[nodiscard, gnu::noinline]] NTSTATUS Guarded(const Body& body)
{
    NT_GUARD guard;
    if (!NtGuardEnter(&guard)) return guard.Code;
    body();
    NtGuardLeave(&guard);
    return STATUS_SUCCESS;
}

} // namespace nthost::ke
