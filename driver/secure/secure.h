// Devices under a security descriptor that is given as SDDL text. A kernel that exports IoCreateDeviceSecure does it
// all; on any other kernel the same work is done here: text to descriptor, device, descriptor onto the device. Holds no
// lock; mounts may come here at the same time.
#pragma once

#include "frame/nt.h"
#include "frame/pool.h"

// For class registry overrides, which this system has none of: the class is always null.
using SecCreateDevice = NTSTATUS(NTAPI*)(PDRIVER_OBJECT driver, ULONG extensionSize, PUNICODE_STRING deviceName,
                                         DEVICE_TYPE type, ULONG characteristics, BOOLEAN exclusive,
                                         PCUNICODE_STRING sddl, const GUID* deviceClass, PDEVICE_OBJECT* device);

// The kernel's routine or SecCreateDeviceFallback; looked up with the first call.
extern SecCreateDevice SecIoCreateDeviceSecure;
extern UCHAR SecRoutinesResolved;

// No device is left after a failure of either.
[[nodiscard]] NTSTATUS SecCreateDeviceSecure(PDRIVER_OBJECT driver, ULONG extensionSize, PUNICODE_STRING deviceName,
                                             DEVICE_TYPE type, ULONG characteristics, BOOLEAN exclusive,
                                             PCUNICODE_STRING sddl, const GUID* deviceClass, PDEVICE_OBJECT* device);
[[nodiscard]] NTSTATUS NTAPI SecCreateDeviceFallback(PDRIVER_OBJECT driver, ULONG extensionSize,
                                                     PUNICODE_STRING deviceName, DEVICE_TYPE type,
                                                     ULONG characteristics, BOOLEAN exclusive, PCUNICODE_STRING sddl,
                                                     const GUID* deviceClass, PDEVICE_OBJECT* device);
// Sets the parts that the descriptor has.
[[nodiscard]] NTSTATUS SecApplySecurityToDevice(PDEVICE_OBJECT device, PSECURITY_DESCRIPTOR descriptor);

// Whether a descriptor comes from a default, which then is marked in it.
enum class SecDefaulted { No, Yes };

// *descriptor is self-relative, in paged pool and the caller's to free; null after a failure.
[[nodiscard]] NTSTATUS SecSddlToSecurityDescriptor(PCUNICODE_STRING sddl, SecDefaulted defaulted,
                                                   PSECURITY_DESCRIPTOR* descriptor);
