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

// Whatever the mount state: a close must finish, and the last one is what lets a requested unmount go on. Behind the
// pin neither the volume nor an object may be touched.
class ClosePin {
public:
    explicit ClosePin(PDEVICE_OBJECT device) : device_(device) { GvPinVcb(device_); }
    ClosePin(const ClosePin&) = delete;
    ClosePin& operator=(const ClosePin&) = delete;
    ~ClosePin()
    {
        GvUnpinVcb(device_);
        GvUnmountIfDrained(device_);
    }

private:
    PDEVICE_OBJECT device_;
};

NTSTATUS DeleteCcb(Ccb* ccb)
{
    const NTSTATUS status = GvCcbDeleteCcb(ccb);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS("GvDoClose", "GvCcbDeleteCcb", status);
    return status;
}

NTSTATUS RefuseFinalClose(PFILE_OBJECT fileObject)
{
    GV_TRACE_AS("GvDoClose", GvTraceError,
                "ERROR: non-top-level final close on FO: 0x%x, there should be one more ref on this FCB!!\n",
                fileObject);
    return STATUS_UNSUCCESSFUL;
}

// Under no lock. Two nested closes can both have found a reference to spare, so each takes its own in one step with
// the test.
NTSTATUS ReleaseNested(PFILE_OBJECT fileObject, Fcb* fcb)
{
    Ccb* const ccb = GvCcbOf(fileObject);
    InterlockedDecrement(&fcb->OpenCount); // while the reference still keeps the record
    if (!GvFcbReleaseUnlessLast(fcb)) {
        InterlockedIncrement(&fcb->OpenCount);
        return RefuseFinalClose(fileObject);
    }
    [[maybe_unused]] const NTSTATUS traced = DeleteCcb(ccb);
    return STATUS_SUCCESS;
}

// Opens of the volume hold no reference, and nobody further up does either: under a pin, since the count may be what an
// unmount waits for.
NTSTATUS ReleaseVolumeOpen(Fcb* volume, Ccb* ccb)
{
    const NTSTATUS status = DeleteCcb(ccb);
    InterlockedDecrement(&volume->OpenCount);
    return status;
}

// Under the volume's lock.
NTSTATUS ReleaseFileObject(IrpContext* context, Fcb* fcb, Ccb* ccb)
{
    [[maybe_unused]] const NTSTATUS traced = DeleteCcb(ccb);
    InterlockedDecrement(&fcb->OpenCount);
    const NTSTATUS status = GvFcbReleaseFcb(context, fcb);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS("GvDoClose", "GvFcbReleaseFcb", status);
    return status;
}

} // namespace

NTSTATUS GvDoClose(IrpContext* context, GvOutcome*)
{
    const PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(context->Irp)->FileObject;
    Fcb* const fcb = GvFcbOf(fileObject);
    if (KeGetCurrentIrql() > APC_LEVEL) return STATUS_UNSUCCESSFUL;
    if (!context->IsTopLevel && fcb->FcbType != GvVolume && GvLoad(fcb->RefCount) <= 1) {
        return RefuseFinalClose(fileObject);
    }
    if (context->IsAsync || KeGetCurrentIrql() != PASSIVE_LEVEL) return GvPendIrpContext(context);
    const bool isVolume = fcb->FcbType == GvVolume;
    if (!context->IsTopLevel && !isVolume) return ReleaseNested(fileObject, fcb);

    const ClosePin pin(context->DeviceObject);
    GvHeldResource lock;
    if (context->IsTopLevel) {
        if (const NTSTATUS status = lock.Exclusive(&context->Vcb->Resource); !NT_SUCCESS(status)) return status;
    }
    return isVolume ? ReleaseVolumeOpen(fcb, GvCcbOf(fileObject))
                    : ReleaseFileObject(context, fcb, GvCcbOf(fileObject));
}
