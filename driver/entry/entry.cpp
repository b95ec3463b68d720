// Load and unload: the globals, the control device, the dispatch table and the fast-I/O table. Runs alone, by the rules
// of the I/O manager.

#include "entry/entry.h"

#include "dataio/callbacks.h"
#include "entry/control.h"
#include "entry/requests.h"
#include "frame/driver.h"
#include "frame/trace.h"
#include "volume/device.h"
#include "secure/secure.h"

namespace {

FAST_IO_DISPATCH GvFastIoDispatch;

constexpr UNICODE_STRING kControlDeviceName = GvLiteral(GVND_CONTROL_DEVICE_NAME);
constexpr UNICODE_STRING kControlLinkName = GvLiteral(GVND_CONTROL_LINK_NAME);

NTSTATUS CreateControlDevice(PDRIVER_OBJECT driver)
{
    const GvDeviceParameters parameters = {
        .Driver = driver,
        .DeviceName = kControlDeviceName,
        .LinkName = kControlLinkName,
        .ExtensionSize = 4,
        .Type = FILE_DEVICE_FILE_SYSTEM,
        .Characteristics = FILE_DEVICE_SECURE_OPEN,
        .SecurityString = nullptr,
    };
    return GvUtlCreateDevAndSymLink(parameters, &GvCtrlDevice);
}

void FillDispatchTable(PDRIVER_OBJECT driver)
{
    for (PDRIVER_DISPATCH& routine : driver->MajorFunction) routine = GvUnsupportedIrp;
    GvFillDispatchRows(driver);
    driver->MajorFunction[IRP_MJ_FILE_SYSTEM_CONTROL] = GvFsControl;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = GvDevControl;
    driver->MajorFunction[IRP_MJ_SHUTDOWN] = GvShutdown;
}

void FillFastIoTable(PDRIVER_OBJECT driver)
{
    RtlZeroMemory(&GvFastIoDispatch, sizeof(GvFastIoDispatch));
    GvFastIoDispatch.SizeOfFastIoDispatch = sizeof(GvFastIoDispatch);
    GvFillFastIoCallbacks(&GvFastIoDispatch);
    driver->FastIoDispatch = &GvFastIoDispatch;
}

} // namespace

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath)
{
    GvDebugMask = GvTraceError | GvTraceNotable | GvTraceFlow | GvTraceDispatch | GvTraceUnsupported;
    GvIoReplaceFileObjectName = nullptr;
    GvDriverObject = nullptr;
    GvCtrlDevice = nullptr;
    GvVcbThreadPoolSize = 0;
    SecRoutinesResolved = 0;

    // Found by name, so that the image still links on a kernel without it and can say so.
    UNICODE_STRING name = GvLiteral(L"IoReplaceFileObjectName");
    GvIoReplaceFileObjectName = reinterpret_cast<PIO_REPLACE_FILE_OBJECT_NAME>(MmGetSystemRoutineAddress(&name));
    if (!GvIoReplaceFileObjectName)
        return GV_REFUSE(STATUS_NOT_SUPPORTED, "ERROR: IoReplaceFileObjectName() not found\n");
    GvDriverObject = driver;

    if (const NTSTATUS status = CreateControlDevice(driver); !NT_SUCCESS(status)) {
        GV_TRACE(GvTraceError, "GvCreateDevAndSymLink(ctrldev): 0x%x\n", status);
        GvLogDriverError(status, driver, GvLogControlDeviceFailed);
        return status;
    }
    GV_TRACE(GvTraceFlow, "gvnd-ctrl-dev: 0x%x\n", GvCtrlDevice);

    GvGetVcbThreadPoolSize(registryPath, &GvVcbThreadPoolSize);
    // Only now, so that a failed load leaves nothing that could be dispatched to.
    driver->DriverUnload = GvUnload;
    FillDispatchTable(driver);
    FillFastIoTable(driver);
    return STATUS_SUCCESS;
}

VOID NTAPI GvUnload(PDRIVER_OBJECT)
{
    GV_TRACE(GvTraceDispatch, "entered\n");
    if (GvCtrlDevice) {
        UNICODE_STRING link = kControlLinkName;
        if (const NTSTATUS status = IoDeleteSymbolicLink(&link); !NT_SUCCESS(status)) {
            GV_TRACE_FAILED("IoDeleteSymbolicLink", status);
        }
        IoDeleteDevice(GvCtrlDevice);
    }
    GV_TRACE(GvTraceDispatch, "gvnd unloaded...\n");
}
