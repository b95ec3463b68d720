// Making a device together with its symbolic link.

#include "volume/control.h"

#include "frame/trace.h"

NTSTATUS GvUtlCreateDevAndSymLink(const GvDeviceParameters& parameters, PDEVICE_OBJECT* result)
{
    if (parameters.SecurityString) {
        // A device that its plugin wants protected must not be made open to all.
        GV_TRACE(GvTraceUnsupported, "security string not supported: %wZ\n", parameters.SecurityString);
        return STATUS_NOT_IMPLEMENTED;
    }
    UNICODE_STRING deviceName = parameters.DeviceName;
    UNICODE_STRING linkName = parameters.LinkName;
    PDEVICE_OBJECT device = nullptr;
    NTSTATUS status = IoCreateDevice(parameters.Driver, parameters.ExtensionSize, &deviceName, parameters.Type,
                                     parameters.Characteristics, FALSE, &device);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("IoCreateDevice", status);
        return status;
    }
    status = IoCreateSymbolicLink(&linkName, &deviceName);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("IoCreateSymbolicLink", status);
        IoDeleteDevice(device);
        return status;
    }
    *result = device;
    return STATUS_SUCCESS;
}

void GvUtlClearDevInitializing(PDEVICE_OBJECT device) { device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING); }
