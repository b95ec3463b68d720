// The address at which a request's data can be touched.

#include "frame/buffer.h"

#include "frame/guard.h"
#include "frame/trace.h"

void* GvUtlMapBufferForIo(PIRP irp)
{
    const PMDL mdl = irp->MdlAddress;
    if (!mdl) {
        if (!irp->UserBuffer) GV_TRACE(GvTraceError, "ERROR: neither user-buffer nor mdl-address available\n");
        return irp->UserBuffer;
    }
    if (mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)) return mdl->MappedSystemVa;
    void* const address = MmMapLockedPagesSpecifyCache(mdl, KernelMode, MmCached, nullptr, FALSE, NormalPagePriority);
    if (!address) GV_TRACE(GvTraceError, "MmGetSystemAddressForMdlSafe(0x%x): failed\n", mdl);
    return address;
}

NTSTATUS GvUtlMapProbedBuffer(PIRP irp, ULONG length, LOCK_OPERATION access, void** buffer)
{
    *buffer = nullptr;
    const bool contained = GvGuarded([irp, length, access, buffer] {
        *buffer = GvUtlMapBufferForIo(irp);
        if (!*buffer || *buffer != irp->UserBuffer || irp->RequestorMode != UserMode) return;
        if (access == IoReadAccess) {
            ProbeForRead(*buffer, length, 1);
        } else {
            ProbeForWrite(*buffer, length, 1);
        }
    });
    if (!contained) return STATUS_ACCESS_VIOLATION;
    return *buffer ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}
