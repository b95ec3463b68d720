// The driver's globals, and the routines of the frame that have no header of their own. The globals are written in
// DriverEntry only, before any request can arrive.
#pragma once

#include "frame/nt.h"

extern PIO_REPLACE_FILE_OBJECT_NAME GvIoReplaceFileObjectName;
extern PDRIVER_OBJECT GvDriverObject;
extern ULONG GvVcbThreadPoolSize; // worker threads of each volume, 1 to 511

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);
VOID NTAPI GvUnload(PDRIVER_OBJECT driver);
NTSTATUS NTAPI GvUnsupportedIrp(PDEVICE_OBJECT device, PIRP irp);

// Never fails: without a valid "NumVcbWorkers" in the service key the size is the default.
void GvGetVcbThreadPoolSize(PUNICODE_STRING registryPath, ULONG* size);

// One entry in the system event log. Nothing above DISPATCH_LEVEL.
void GvLogDriverError(NTSTATUS errorCode, PDRIVER_OBJECT driver, ULONG uniqueErrorValue);
constexpr ULONG GvLogControlDeviceFailed = 0x10002;

// The thread's top-level slot tells whether a request is the outermost file-system entry on this thread.
// True if the slot was free; the request then stands in it.
bool GvUtlIsTopLevelIrp(PIRP irp);
void GvUtlClearTopLevelIrp();
