// Requests on the control device. No lock: the table is constant and the device is made before any request can come.

#include "entry/control.h"

#include "frame/complete.h"
#include "frame/context.h"
#include "frame/trace.h"
#include "volume/volume.h"

PDEVICE_OBJECT GvCtrlDevice;

namespace {

[[nodiscard]] NTSTATUS GvCtrlIrpDeviceControl(PIRP irp, ULONG* information)
{
    *information = 0;
    if (irp->RequestorMode != KernelMode)
        return GV_REFUSE(STATUS_INVALID_PARAMETER, "ERR: umode caller to gvnd ctrl-dev ioctl");
    const auto& parameters = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
    if (parameters.IoControlCode != IOCTL_GVND_GET_SERVICE_TABLE)
        return GV_REFUSE(STATUS_INVALID_PARAMETER, "bad ioctl\n");
    const GvServices* const table = &GvServiceTable;
    if (parameters.OutputBufferLength < sizeof(table)) return GV_REFUSE(STATUS_BUFFER_TOO_SMALL, "buffer too small\n");
    RtlCopyMemory(irp->AssociatedIrp.SystemBuffer, &table, sizeof(table));
    *information = sizeof(table);
    return STATUS_SUCCESS;
}

[[nodiscard]] NTSTATUS ServeControlRequest(PDEVICE_OBJECT device, PIRP irp, ULONG* information)
{
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(irp);
    GV_TRY_TRACED_AS("GvCtrlHandleIrp", "GV_IS_VALID_FO", GvUtlCheckFileObject(device, stack->FileObject));
    switch (stack->MajorFunction) {
    case IRP_MJ_CREATE:
    case IRP_MJ_CLOSE:
    case IRP_MJ_CLEANUP: return STATUS_SUCCESS;
    case IRP_MJ_DEVICE_CONTROL: {
        const NTSTATUS status = GvCtrlIrpDeviceControl(irp, information);
        if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS("GvCtrlHandleIrp", "GvCtrlIrpDeviceControl", status);
        return status;
    }
    default:
        return GV_REFUSE_AS("GvCtrlHandleIrp", STATUS_NOT_SUPPORTED, "bad major-function: 0x%x\n",
                            stack->MajorFunction);
    }
}

} // namespace

NTSTATUS GvCtrlHandleIrp(PDEVICE_OBJECT device, PIRP irp, bool* handled)
{
    *handled = device == GvCtrlDevice;
    if (!*handled) return STATUS_SUCCESS;
    ULONG information = 0;
    const NTSTATUS status = ServeControlRequest(device, irp, &information);
    return GvCompleteRequest(__func__, irp, status, information);
}
