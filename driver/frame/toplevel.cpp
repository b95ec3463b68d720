// The thread's top-level slot, and the requests that the driver does not serve.

#include "frame/driver.h"
#include "frame/trace.h"

bool GvUtlIsTopLevelIrp(PIRP irp)
{
    if (IoGetTopLevelIrp()) return false;
    IoSetTopLevelIrp(irp);
    return true;
}

void GvUtlClearTopLevelIrp() { IoSetTopLevelIrp(nullptr); }

// For the control device and volumes alike; looks at no file control block.
NTSTATUS NTAPI GvUnsupportedIrp([[maybe_unused]] PDEVICE_OBJECT device, PIRP irp)
{
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(irp);
    GV_TRACE(GvTraceDispatch, "dev: 0x%x, fo: 0x%x, irp mj: 0x%x\n", device, stack->FileObject, stack->MajorFunction);
    GvTraceClosing(__func__, stack->FileObject, STATUS_INVALID_DEVICE_REQUEST, 0);
    irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    irp->IoStatus.Information = 0;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}
