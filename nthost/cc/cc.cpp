// What a file system asks about, and does to, the mapped pages of a file. There are no cache maps: a data section is
// all that is kept of a file. Relies on sectionLock for the looks; flush and purge take it themselves.
#include <ntifs.h>

#include <nthost/faults.h>

#include "mm/pages.h"

using namespace nthost::mm;
using nthost::FaultInjected;

namespace {

bool IsInUse(PSECTION_OBJECT_POINTERS pointers, AreaKind kind)
{
    const AreaHold area(HoldArea(pointers, kind));
    if (!area) return false;
    const SectionGuard hold(sectionLock);
    return HasUsers(area.Get());
}

// The last page of a file may be cut within: its tail still belongs to the view.
bool CutsUsers(const ControlArea* area, const LARGE_INTEGER* newSize)
{
    const SectionGuard hold(sectionLock);
    if (!HasUsers(area)) return false;
    return !newSize || PagesFor(newSize->QuadPart) < PagesFor(area->Size);
}

} // namespace

VOID NTAPI CcFlushCache(PSECTION_OBJECT_POINTERS pointers, PLARGE_INTEGER offset, ULONG length, PIO_STATUS_BLOCK status)
{
    IO_STATUS_BLOCK result = {{STATUS_SUCCESS}, 0};
    if (FaultInjected("CcFlushCache"))
        result.Status = STATUS_UNEXPECTED_IO_ERROR;
    else if (const AreaHold area(HoldArea(pointers, AreaKind::Data)); area)
        FlushRange(area.Get(), RangeOf(area.Get(), offset, length), &result);
    if (status) *status = result;
}

BOOLEAN NTAPI CcPurgeCacheSection(PSECTION_OBJECT_POINTERS pointers, PLARGE_INTEGER offset, ULONG length, ULONG)
{
    if (FaultInjected("CcPurgeCacheSection")) return FALSE;
    const AreaHold area(HoldArea(pointers, AreaKind::Data));
    return !area || PurgeRange(area.Get(), RangeOf(area.Get(), offset, length));
}

BOOLEAN NTAPI CcUninitializeCacheMap(PFILE_OBJECT, PLARGE_INTEGER, PCACHE_UNINITIALIZE_EVENT event)
{
    if (event) KeSetEvent(&event->Event, IO_NO_INCREMENT, FALSE); // there is no map whose end could be waited for
    return TRUE;
}

BOOLEAN NTAPI MmFlushImageSection(PSECTION_OBJECT_POINTERS pointers, MMFLUSH_TYPE type)
{
    if (FaultInjected("MmFlushImageSection")) return FALSE;
    if (type == MmFlushForDelete && IsInUse(pointers, AreaKind::Data)) return FALSE;
    const AreaHold image(HoldArea(pointers, AreaKind::Image));
    return !image || DropUnused(image.Get(), false);
}

BOOLEAN NTAPI MmCanFileBeTruncated(PSECTION_OBJECT_POINTERS pointers, PLARGE_INTEGER newSize)
{
    if (FaultInjected("MmCanFileBeTruncated")) return FALSE;
    if (const AreaHold image(HoldArea(pointers, AreaKind::Image)); image && !DropUnused(image.Get(), false))
        return FALSE;
    const AreaHold area(HoldArea(pointers, AreaKind::Data));
    return !area || !CutsUsers(area.Get(), newSize);
}
