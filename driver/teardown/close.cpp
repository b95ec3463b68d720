// IRP_MJ_CLOSE: the end of a file object. It may come at any time and in any context, so it can pend, and it can go
// without the volume lock when it is nested in other work: then the holder further up has one more reference, and this
// one is not the last.

#include "frame/context.h"
#include "frame/requests.h"
#include "frame/resource.h"
#include "frame/trace.h"
#include "objects/ccb.h"
#include "objects/fcb.h"
#include "volume/volume.h"

namespace {

// Whatever the mount state: a close must finish, and the last one is what lets a requested unmount go on.
class ClosePin {
public:
    explicit ClosePin(PDEVICE_OBJECT device) : device_(device)
    {
        if (device_) GvPinVcb(device_);
    }
    ClosePin(const ClosePin&) = delete;
    ClosePin& operator=(const ClosePin&) = delete;
    ~ClosePin()
    {
        if (!device_) return;
        GvUnpinVcb(device_);
        GvUnmountIfDrained(device_);
    }

private:
    PDEVICE_OBJECT device_;
};

NTSTATUS ReleaseFileObject(IrpContext* context, Fcb* fcb, Ccb* ccb)
{
    NTSTATUS status = GvCcbDeleteCcb(ccb);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS("GvDoClose", "GvCcbDeleteCcb", status);
    InterlockedDecrement(&fcb->OpenCount);
    if (fcb->FcbType == GvVolume) return status; // opens of the volume hold no reference

    status = GvFcbReleaseFcb(context, fcb);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS("GvDoClose", "GvFcbReleaseFcb", status);
    return status;
}

} // namespace

NTSTATUS GvDoClose(IrpContext* context, GvOutcome*)
{
    const PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(context->Irp)->FileObject;
    Fcb* const fcb = GvFcbOf(fileObject);
    Ccb* const ccb = GvCcbOf(fileObject);
    if (KeGetCurrentIrql() > APC_LEVEL) return STATUS_UNSUCCESSFUL;
    if (!context->IsTopLevel && fcb->FcbType != GvVolume && GvLoad(fcb->RefCount) <= 1) {
        GV_TRACE(GvTraceError,
                 "ERROR: non-top-level final close on FO: 0x%x, there should be one more ref on this FCB!!\n",
                 fileObject);
        return STATUS_UNSUCCESSFUL;
    }
    if (context->IsAsync || KeGetCurrentIrql() != PASSIVE_LEVEL) return GvPendIrpContext(context);

    const ClosePin pin(context->IsTopLevel ? context->DeviceObject : nullptr);
    GvHeldResource lock;
    if (context->IsTopLevel) {
        if (const NTSTATUS status = lock.Exclusive(&context->Vcb->Resource); !NT_SUCCESS(status)) return status;
    }
    return ReleaseFileObject(context, fcb, ccb);
}
