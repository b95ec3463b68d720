// The descriptor that each device has, and what it says to those who open the device or a path on it. A descriptor is
// never changed, only replaced, under the device state's lock; whoever judges by one keeps it alive meanwhile.
#pragma once

#include <memory>
#include <vector>

#include <ntifs.h>

namespace nthost::io {

// A valid self-relative descriptor.
using DescriptorBlock = std::shared_ptr<const std::vector<UCHAR>>;

// Of a device that nobody has given another: everybody may do everything.
DescriptorBlock DefaultDeviceSecurity();
// Takes over the parts that information names. The descriptor is valid, of either form.
void ReplaceDeviceSecurity(PDEVICE_OBJECT device, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR descriptor);

struct DeviceOpen {
    bool IsOfDevice; // not of something on it: the device's own rights are granted
    bool IsChecked;  // the caller is user mode, or asked to be treated so
    PACCESS_STATE Access;
};
// STATUS_ACCESS_DENIED, STATUS_PRIVILEGE_NOT_HELD.
[[nodiscard]] NTSTATUS CheckDeviceOpen(PDEVICE_OBJECT device, const DeviceOpen& open);

} // namespace nthost::io
