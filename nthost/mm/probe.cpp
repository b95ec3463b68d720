// Probes of caller addresses. They raise, so their callers hold a guard; nothing is locked or remembered. All memory of
// this Linux process counts as user memory: kernel addresses in NT's sense do not exist here.
#include "mm/touch.h"

#include <cstdint>

namespace {

void CheckRange(const volatile VOID* address, SIZE_T length, ULONG alignment)
{
    const auto start = reinterpret_cast<uintptr_t>(address);
    if (start & (alignment - 1)) ExRaiseDatatypeMisalignment();
    const uintptr_t end = start + length;
    if (end < start || end > MM_USER_PROBE_ADDRESS) ExRaiseAccessViolation();
}

} // namespace

VOID NTAPI ProbeForRead(const volatile VOID* Address, SIZE_T Length, ULONG Alignment)
{
    if (Length) CheckRange(Address, Length, Alignment);
}

VOID NTAPI ProbeForWrite(volatile VOID* Address, SIZE_T Length, ULONG Alignment)
{
    if (!Length) return;
    CheckRange(Address, Length, Alignment);
    nthost::mm::TouchPages(Address, Length, nthost::mm::TouchForWrite);
}
