// Requests with almost nothing to do: file-system control, device control, shutdown, and what is not served. None has a
// context, goes to a worker or calls the plugin; on the control device they mean what that device gives them.

#include "entry/control.h"
#include "entry/dispatch.h"
#include "entry/entry.h"
#include "entry/requests.h"
#include "frame/complete.h"
#include "frame/context.h"
#include "frame/trace.h"

#ifndef FSCTL_IS_VOLUME_MOUNTED
#define FSCTL_IS_VOLUME_MOUNTED CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 10, METHOD_BUFFERED, FILE_ANY_ACCESS)
#endif
static_assert(FSCTL_IS_VOLUME_MOUNTED == 0x90028);

namespace {

// A look at one word: whoever asks can be overtaken by an unmount request anyway.
bool IsMounted(const Vcb* vcb) GV_NO_ANALYSIS { return GvLoad(vcb->MountState) == GvMounted; }

NTSTATUS GvDoFsControl(PDEVICE_OBJECT device, PIRP irp)
{
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(irp);
    if (KeGetCurrentIrql() > PASSIVE_LEVEL) return STATUS_UNSUCCESSFUL;
    GV_TRY_TRACED("GvUtlCheckFileObject", GvUtlCheckFileObject(device, stack->FileObject));
    if (stack->MinorFunction != IRP_MN_USER_FS_REQUEST) {
        GV_TRACE(GvTraceUnsupported, "unsupported minor-function: 0x%x\n", stack->MinorFunction);
        return STATUS_INVALID_PARAMETER;
    }
    const ULONG code = stack->Parameters.FileSystemControl.FsControlCode;
    if (code != FSCTL_IS_VOLUME_MOUNTED) {
        GV_TRACE(GvTraceUnsupported, "unsupported fsctrl-code: 0x%x\n", code);
        return STATUS_INVALID_PARAMETER;
    }
    return IsMounted(GvVcbOf(device)) ? STATUS_SUCCESS : STATUS_VOLUME_DISMOUNTED;
}

} // namespace

NTSTATUS NTAPI GvFsControl(PDEVICE_OBJECT device, PIRP irp)
{
    bool handled;
    if (const NTSTATUS status = GvCtrlHandleIrp(device, irp, &handled); handled) return status;
    GvTraceOpening(__func__, device, irp);
    KeEnterCriticalRegion();
    const NTSTATUS status = GvDoFsControl(device, irp);
    KeLeaveCriticalRegion();
    return GvCompleteRequest(__func__, irp, status, 0);
}

NTSTATUS NTAPI GvDevControl(PDEVICE_OBJECT device, PIRP irp)
{
    bool handled;
    if (const NTSTATUS status = GvCtrlHandleIrp(device, irp, &handled); handled) return status;
    GvTraceOpening(__func__, device, irp);
    return GvCompleteRequest(__func__, irp, STATUS_NOT_SUPPORTED, 0);
}

// There is nothing to save: the driver keeps no data of its own.
NTSTATUS NTAPI GvShutdown(PDEVICE_OBJECT device, PIRP irp)
{
    bool handled;
    if (const NTSTATUS status = GvCtrlHandleIrp(device, irp, &handled); handled) return status;
    GvTraceOpening(__func__, device, irp);
    return GvCompleteRequest(__func__, irp, STATUS_SUCCESS, 0);
}

// For the control device and volumes alike; looks at no file control block.
NTSTATUS NTAPI GvUnsupportedIrp(PDEVICE_OBJECT device, PIRP irp)
{
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(irp);
    GV_TRACE(GvTraceDispatch, "dev: 0x%x, fo: 0x%x, irp mj: 0x%x\n", device, stack->FileObject, stack->MajorFunction);
    return GvCompleteRequest(__func__, irp, STATUS_INVALID_DEVICE_REQUEST, 0);
}
