// The control device: the one road from a plugin to the driver. It has no per-handle state; all it gives is the service
// table.
#pragma once

#include "frame/nt.h"

// Written in DriverEntry only; null until the device exists.
extern PDEVICE_OBJECT GvCtrlDevice;

// Constant; fetched by plugins with IOCTL_GVND_GET_SERVICE_TABLE.
extern const GvServices GvServiceTable;

// The first step of every dispatch routine but GvUnsupportedIrp. *handled says that the request was for the control
// device and is complete, with the status returned.
NTSTATUS GvCtrlHandleIrp(PDEVICE_OBJECT device, PIRP irp, bool* handled);

struct GvDeviceParameters {
    PDRIVER_OBJECT Driver;
    UNICODE_STRING DeviceName;
    UNICODE_STRING LinkName;
    ULONG ExtensionSize;
    DEVICE_TYPE Type;
    ULONG Characteristics;
    PUNICODE_STRING SecurityString; // an SDDL string, or null
};

// On failure nothing is left and *device is unchanged. DO_DEVICE_INITIALIZING stays set.
[[nodiscard]] NTSTATUS GvUtlCreateDevAndSymLink(const GvDeviceParameters& parameters, PDEVICE_OBJECT* device);
void GvUtlClearDevInitializing(PDEVICE_OBJECT device);
