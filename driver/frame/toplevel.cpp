// The thread's top-level slot, and the requests that the driver does not serve.

#include "frame/dispatch.h"
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
NTSTATUS NTAPI GvUnsupportedIrp(PDEVICE_OBJECT device, PIRP irp)
{
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(irp);
    GV_TRACE(GvTraceDispatch, "dev: 0x%x, fo: 0x%x, irp mj: 0x%x\n", device, stack->FileObject, stack->MajorFunction);
    return GvCompleteRequest(__func__, irp, STATUS_INVALID_DEVICE_REQUEST, 0);
}
