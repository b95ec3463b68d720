// Making a device together with its symbolic link.

#include "volume/device.h"

#include "frame/atomic.h"
#include "frame/trace.h"
#include "secure/secure.h"

namespace {

constexpr char kName[] = "GvUtlCreateDevAndSymLink";

[[nodiscard]] NTSTATUS CreateOpenDevice(const GvDeviceParameters& parameters, PUNICODE_STRING name,
                                        PDEVICE_OBJECT* device)
{
    const NTSTATUS status = IoCreateDevice(parameters.Driver, parameters.ExtensionSize, name, parameters.Type,
                                           parameters.Characteristics, FALSE, device);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS(kName, "IoCreateDevice", status);
    return status;
}

[[nodiscard]] NTSTATUS CreateSecureDevice(const GvDeviceParameters& parameters, PUNICODE_STRING name,
                                          PDEVICE_OBJECT* device)
{
    const NTSTATUS status =
        SecCreateDeviceSecure(parameters.Driver, parameters.ExtensionSize, name, parameters.Type,
                              parameters.Characteristics, FALSE, parameters.SecurityString, nullptr, device);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS(kName, "IoCreateDeviceSecure", status);
    return status;
}

} // namespace

NTSTATUS GvUtlCreateDevAndSymLink(const GvDeviceParameters& parameters, PDEVICE_OBJECT* result)
{
    UNICODE_STRING deviceName = parameters.DeviceName;
    UNICODE_STRING linkName = parameters.LinkName;
    PDEVICE_OBJECT device = nullptr;
    GV_TRY(parameters.SecurityString ? CreateSecureDevice(parameters, &deviceName, &device)
                                     : CreateOpenDevice(parameters, &deviceName, &device));
    const NTSTATUS status = IoCreateSymbolicLink(&linkName, &deviceName);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("IoCreateSymbolicLink", status);
        IoDeleteDevice(device);
        return status;
    }
    *result = device;
    return STATUS_SUCCESS;
}

// An open may look at this moment whether it is too early.
void GvUtlClearDevInitializing(PDEVICE_OBJECT device)
{
    GvStore(device->Flags, device->Flags & ~static_cast<ULONG>(DO_DEVICE_INITIALIZING));
}
