// Requests by hand. The completion routine keeps the packet, so what the request owned is given back here.

#include "support/handmade.h"

namespace support {

HandMade::HandMade(PDEVICE_OBJECT device, PFILE_OBJECT file, UCHAR major, UCHAR minor, Caller caller)
    : device_(device), irp_(IoAllocateIrp(device->StackSize, FALSE))
{
    KeInitializeEvent(&done_, NotificationEvent, FALSE);
    IoSetCompletionRoutine(irp_, Completed, this, TRUE, TRUE, TRUE);
    const PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp_);
    stack->MajorFunction = major;
    stack->MinorFunction = minor;
    stack->FileObject = file;
    irp_->Tail.Overlay.OriginalFileObject = file;
    irp_->Tail.Overlay.Thread = PsGetCurrentThread();
    irp_->Flags = caller == Caller::Waits ? IRP_SYNCHRONOUS_API : 0;
}

HandMade::~HandMade()
{
    while (PMDL const mdl = irp_->MdlAddress) {
        irp_->MdlAddress = mdl->Next;
        if (mdl->MdlFlags & MDL_PAGES_LOCKED) MmUnlockPages(mdl);
        IoFreeMdl(mdl);
    }
    IoFreeIrp(irp_);
}

NTSTATUS HandMade::Send()
{
    const NTSTATUS status = IofCallDriver(device_, irp_);
    // Anything else has been completed before it came back, and may have been sent where a wait is not allowed.
    if (status == STATUS_PENDING) KeWaitForSingleObject(&done_, Executive, KernelMode, FALSE, nullptr);
    return status;
}

NTSTATUS NTAPI HandMade::Completed(PDEVICE_OBJECT, PIRP, PVOID context)
{
    KeSetEvent(&static_cast<HandMade*>(context)->done_, IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

} // namespace support
