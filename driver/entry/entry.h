// Load and unload, and what they need: the one setting, the event log, the refusal of what is not served.
#pragma once

#include "frame/nt.h"

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);
VOID NTAPI GvUnload(PDRIVER_OBJECT driver);
NTSTATUS NTAPI GvUnsupportedIrp(PDEVICE_OBJECT device, PIRP irp);

// Never fails: without a valid "NumVcbWorkers" in the service key the size is the default.
void GvGetVcbThreadPoolSize(PUNICODE_STRING registryPath, ULONG* size);

// One entry in the system event log. Nothing above DISPATCH_LEVEL.
void GvLogDriverError(NTSTATUS errorCode, PDRIVER_OBJECT driver, ULONG uniqueErrorValue);
constexpr ULONG GvLogControlDeviceFailed = 0x10002;
