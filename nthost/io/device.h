// Devices and drivers as objects. A device's open count, deletion mark and initialising flag are judged together under
// its own lock; the list of a driver's devices has one lock for all drivers.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include <ntifs.h>

#include "io/device_security.h"
#include "io/file.h"
#include "ke/word_lock.h"
#include "ob/object.h"

namespace nthost::io {

// Behind DEVICE_OBJECT.DeviceObjectExtension. Lock guards DeletePending, Unlinked, Security with the device's pointer
// to it, and the device's ReferenceCount.
struct DeviceState {
    ke::WordLock Lock;
    DescriptorBlock Security; // never null
    bool DeletePending;
    bool Unlinked; // deletion has gone through: off its driver's list, the creation reference given back
};

struct DriverBody {
    DRIVER_OBJECT Driver;
    DRIVER_EXTENSION Extension;
    std::u16string* Name;          // owned: "\Driver\name"
    std::u16string* ServiceName;   // owned
    std::atomic<LONG> LiveDevices; // device objects whose memory is still there
    std::atomic<LONG> WorkItems;   // allocated on its devices
    std::atomic<LONG> QueuedWork;  // work items queued or running
    ke::EndSignal Ended;           // a device or a work item has
};

inline DriverBody* BodyOf(PDRIVER_OBJECT driver) { return reinterpret_cast<DriverBody*>(driver); }

inline DeviceState* StateOf(PDEVICE_OBJECT device) { return static_cast<DeviceState*>(device->DeviceObjectExtension); }

extern OBJECT_TYPE DeviceType;
extern OBJECT_TYPE DriverType;

// A named driver object whose dispatch routines all refuse; one reference for the caller and one for the name.
[[nodiscard]] NTSTATUS NewDriverObject(const std::u16string& name, PDRIVER_OBJECT* driver);

// Counts an open, which keeps the device from ending. STATUS_NO_SUCH_DEVICE while it is initialising or being deleted,
// STATUS_ACCESS_DENIED for a second open of an exclusive one.
[[nodiscard]] NTSTATUS CountOpen(PDEVICE_OBJECT device, bool isRelative);
void UncountOpen(PDEVICE_OBJECT device);

// The driver's devices, referenced for the caller.
std::vector<PDEVICE_OBJECT> DevicesOf(PDRIVER_OBJECT driver);
bool IsDeletePending(PDEVICE_OBJECT device);
bool HasOpens(PDEVICE_OBJECT device);

} // namespace nthost::io
