// A device together with its symbolic link.
#pragma once

#include "frame/nt.h"

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
