// All work on the object's lock; the paging resource is never taken. A flush marks the thread's top-level slot, so that
// the paging writes inside it do not take the lock a second time.

#include "dataio/callbacks.h"

#include "frame/context.h"
#include "frame/toplevel.h"
#include "frame/trace.h"

namespace {

PIRP CacheMarker() { return reinterpret_cast<PIRP>(FSRTL_CACHE_TOP_LEVEL_IRP); }

PERESOURCE LockOf(PFILE_OBJECT fileObject) { return GvFcbOf(fileObject)->Header.Resource; }

void TraceEntry(const char* function, PFILE_OBJECT fileObject)
{
    GV_TRACE_AS(function, GvTraceDispatch, "fo: 0x%x, top-level: 0x%x\n", fileObject, IoGetTopLevelIrp());
}

[[nodiscard]] NTSTATUS EnterForDevice(const char* function, PFILE_OBJECT fileObject, PDEVICE_OBJECT device)
{
    TraceEntry(function, fileObject);
    const NTSTATUS status = GvUtlCheckFileObject(device, fileObject);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS(function, "GvUtlCheckFileObject", status);
    return status;
}

BOOLEAN NTAPI GvFastIoCheckIfPossible(PFILE_OBJECT fileObject, PLARGE_INTEGER, ULONG, BOOLEAN, ULONG, BOOLEAN,
                                      PIO_STATUS_BLOCK, PDEVICE_OBJECT)
{
    GV_TRACE(GvTraceDispatch, "fo: 0x%x\n", fileObject);
    return FALSE;
}

VOID NTAPI GvAcquireFileForNtCreateSection(PFILE_OBJECT fileObject)
{
    TraceEntry(__func__, fileObject);
    ExAcquireResourceExclusiveLite(LockOf(fileObject), TRUE);
}

VOID NTAPI GvReleaseFileForNtCreateSection(PFILE_OBJECT fileObject)
{
    TraceEntry(__func__, fileObject);
    ExReleaseResourceLite(LockOf(fileObject));
}

// The page writer must not block on a file's lock; it comes back later.
NTSTATUS NTAPI GvAcquireForModWrite(PFILE_OBJECT fileObject, PLARGE_INTEGER, PERESOURCE* resourceToRelease,
                                    PDEVICE_OBJECT device)
{
    GV_TRY(EnterForDevice(__func__, fileObject, device));
    const PERESOURCE lock = LockOf(fileObject);
    if (!ExAcquireResourceExclusiveLite(lock, FALSE)) return STATUS_CANT_WAIT;
    *resourceToRelease = lock;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI GvReleaseForModWrite(PFILE_OBJECT fileObject, PERESOURCE resourceToRelease, PDEVICE_OBJECT device)
{
    GV_TRY(EnterForDevice(__func__, fileObject, device));
    ExReleaseResourceLite(resourceToRelease);
    return STATUS_SUCCESS;
}

// Inside a file-system request the thread holds what it needs.
NTSTATUS NTAPI GvAcquireForCcFlush(PFILE_OBJECT fileObject, PDEVICE_OBJECT device)
{
    GV_TRY(EnterForDevice(__func__, fileObject, device));
    if (!GvUtlIsTopLevelIrp(CacheMarker())) return STATUS_SUCCESS;
    return ExAcquireResourceExclusiveLite(LockOf(fileObject), TRUE) ? STATUS_SUCCESS : STATUS_CANT_WAIT;
}

// Undoes exactly what its twin did.
NTSTATUS NTAPI GvReleaseForCcFlush(PFILE_OBJECT fileObject, PDEVICE_OBJECT device)
{
    GV_TRY(EnterForDevice(__func__, fileObject, device));
    if (IoGetTopLevelIrp() != CacheMarker()) return STATUS_SUCCESS;
    ExReleaseResourceLite(LockOf(fileObject));
    GvUtlClearTopLevelIrp();
    return STATUS_SUCCESS;
}

} // namespace

void GvFillFastIoCallbacks(PFAST_IO_DISPATCH table)
{
    table->FastIoCheckIfPossible = GvFastIoCheckIfPossible;
    table->AcquireFileForNtCreateSection = GvAcquireFileForNtCreateSection;
    table->ReleaseFileForNtCreateSection = GvReleaseFileForNtCreateSection;
    table->AcquireForModWrite = GvAcquireForModWrite;
    table->ReleaseForModWrite = GvReleaseForModWrite;
    table->AcquireForCcFlush = GvAcquireForCcFlush;
    table->ReleaseForCcFlush = GvReleaseForCcFlush;
}
