// The per-open record: made when an open succeeds, freed at close.

#include "objects/ccb.h"

#include "frame/pool.h"
#include "frame/trace.h"

NTSTATUS GvCcbCreateCcb(bool deleteOnClose, Ccb** result)
{
    auto* const ccb = GvAllocate<Ccb>(NonPagedPool);
    if (!ccb) return GV_REFUSE(STATUS_INSUFFICIENT_RESOURCES, "out-of-mem\n");
    ccb->EaScanIndex = 1;
    ccb->DeleteOnClose = deleteOnClose;
    *result = ccb;
    return STATUS_SUCCESS;
}

NTSTATUS GvCcbDeleteCcb(Ccb* ccb)
{
    if (!ccb) return STATUS_INVALID_PARAMETER;
    if (ccb->DirSearchPattern) GvFree(ccb->DirSearchPattern);
    GvFree(ccb);
    return STATUS_SUCCESS;
}
