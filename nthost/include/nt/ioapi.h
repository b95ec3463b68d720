// Routines of the I/O manager. Included by nt/io.h, which has the objects.
#pragma once

#include "intrinsics.h"
#include "io.h"

NT_EXTERN_C_BEGIN

// --- devices and links

// The device gets DO_DEVICE_INITIALIZING, which refuses opens (STATUS_NO_SUCH_DEVICE) until the driver clears it; for
// devices made in DriverEntry the loader clears it. STATUS_OBJECT_NAME_COLLISION for a taken name.
NTKERNELAPI NTSTATUS NTAPI IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize,
                                          PUNICODE_STRING DeviceName, DEVICE_TYPE DeviceType,
                                          ULONG DeviceCharacteristics, BOOLEAN Exclusive, PDEVICE_OBJECT* DeviceObject);
// The name goes at once; the object when the last file object and reference on it are gone.
NTKERNELAPI VOID NTAPI IoDeleteDevice(PDEVICE_OBJECT DeviceObject);
NTKERNELAPI NTSTATUS NTAPI IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName);
NTKERNELAPI NTSTATUS NTAPI IoDeleteSymbolicLink(PUNICODE_STRING SymbolicLinkName);
NTKERNELAPI PDEVICE_OBJECT NTAPI IoGetRelatedDeviceObject(PFILE_OBJECT FileObject);

// --- requests

NTKERNELAPI PIRP NTAPI IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota);
NTKERNELAPI VOID NTAPI IoFreeIrp(PIRP Irp);
#define IoSizeOfIrp(StackSize) ((USHORT)(sizeof(IRP) + (StackSize) * sizeof(IO_STACK_LOCATION)))
NTKERNELAPI NTSTATUS FASTCALL IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTKERNELAPI VOID FASTCALL IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost);
#define IoCallDriver(DeviceObject, Irp)       IofCallDriver((DeviceObject), (Irp))
#define IoCompleteRequest(Irp, PriorityBoost) IofCompleteRequest((Irp), (PriorityBoost))

#define IoGetCurrentIrpStackLocation(Irp)  ((Irp)->Tail.Overlay.CurrentStackLocation)
#define IoGetNextIrpStackLocation(Irp)     ((Irp)->Tail.Overlay.CurrentStackLocation - 1)
#define IoSkipCurrentIrpStackLocation(Irp) ((Irp)->CurrentLocation++, (Irp)->Tail.Overlay.CurrentStackLocation++)
#define IoSetNextIrpStackLocation(Irp)     ((Irp)->CurrentLocation--, (Irp)->Tail.Overlay.CurrentStackLocation--)
#define IoMarkIrpPending(Irp)              (IoGetCurrentIrpStackLocation(Irp)->Control |= SL_PENDING_RETURNED)

FORCEINLINE VOID IoSetCompletionRoutine(PIRP Irp, PIO_COMPLETION_ROUTINE Routine, PVOID Context, BOOLEAN OnSuccess,
                                        BOOLEAN OnError, BOOLEAN OnCancel)
{
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(Irp);
    next->CompletionRoutine = Routine;
    next->Context = Context;
    next->Control = (UCHAR)((OnSuccess ? SL_INVOKE_ON_SUCCESS : 0) | (OnError ? SL_INVOKE_ON_ERROR : 0) |
                            (OnCancel ? SL_INVOKE_ON_CANCEL : 0));
}

// Synchronous if the request came by a synchronous service (IRP_SYNCHRONOUS_API), on a file object opened for
// synchronous I/O, or is synchronous paging I/O.
NTKERNELAPI BOOLEAN NTAPI IoIsOperationSynchronous(PIRP Irp);
NTKERNELAPI PEPROCESS NTAPI IoGetRequestorProcess(PIRP Irp);
NTKERNELAPI VOID NTAPI IoSetTopLevelIrp(PIRP Irp);
NTKERNELAPI PIRP NTAPI IoGetTopLevelIrp(VOID);
#define FSRTL_FSP_TOP_LEVEL_IRP       0x01
#define FSRTL_CACHE_TOP_LEVEL_IRP     0x02
#define FSRTL_MOD_WRITE_TOP_LEVEL_IRP 0x03
#define FSRTL_FAST_IO_TOP_LEVEL_IRP   0x04
#define FSRTL_MAX_TOP_LEVEL_IRP_FLAG  0xffff

// Fills locked pages from a file, as the memory manager does for a mapped view: a paging request, which no byte-range
// lock stops and which moves no file position. The event is signalled and the status block filled when it ends.
NTKERNELAPI NTSTATUS NTAPI IoPageRead(PFILE_OBJECT FileObject, PMDL MemoryDescriptorList, PLARGE_INTEGER StartingOffset,
                                      PKEVENT Event, PIO_STATUS_BLOCK IoStatusBlock);

// --- cancellation

// TRUE if a cancel routine was there and was called. The routine runs with the cancel spin lock held, which it gives up
// with IoReleaseCancelSpinLock(Irp->CancelIrql).
NTKERNELAPI BOOLEAN NTAPI IoCancelIrp(PIRP Irp);
NTKERNELAPI VOID NTAPI IoAcquireCancelSpinLock(PKIRQL Irql);
NTKERNELAPI VOID NTAPI IoReleaseCancelSpinLock(KIRQL Irql);

FORCEINLINE PDRIVER_CANCEL IoSetCancelRoutine(PIRP Irp, PDRIVER_CANCEL Routine)
{
    return __atomic_exchange_n(&Irp->CancelRoutine, Routine, __ATOMIC_SEQ_CST);
}

// --- memory descriptor lists

// With an Irp and SecondaryBuffer FALSE the MDL becomes the request's MdlAddress.
NTKERNELAPI PMDL NTAPI IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota,
                                     PIRP Irp);
NTKERNELAPI VOID NTAPI IoFreeMdl(PMDL Mdl);

// --- work items: the device is referenced from queuing until the routine has returned

NTKERNELAPI PIO_WORKITEM NTAPI IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject);
NTKERNELAPI VOID NTAPI IoFreeWorkItem(PIO_WORKITEM IoWorkItem);
NTKERNELAPI VOID NTAPI IoQueueWorkItem(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE WorkerRoutine,
                                       WORK_QUEUE_TYPE QueueType, PVOID Context);

// --- error log: IoObject is a driver or a device; writing hands the entry back to the system

NTKERNELAPI PVOID NTAPI IoAllocateErrorLogEntry(PVOID IoObject, UCHAR EntrySize);
NTKERNELAPI VOID NTAPI IoWriteErrorLogEntry(PVOID ElEntry);
NTKERNELAPI VOID NTAPI IoFreeErrorLogEntry(PVOID ElEntry);

// --- names

// Gives the file object a new name, for an open that goes on elsewhere with STATUS_REPARSE. Length in bytes.
// STATUS_INSUFFICIENT_RESOURCES leaves the name as it was.
NTKERNELAPI NTSTATUS NTAPI IoReplaceFileObjectName(PFILE_OBJECT FileObject, PWSTR NewFileName, USHORT FileNameLength);
typedef NTSTATUS(NTAPI* PIO_REPLACE_FILE_OBJECT_NAME)(PFILE_OBJECT FileObject, PWSTR NewFileName,
                                                      USHORT FileNameLength);

// STATUS_EA_LIST_INCONSISTENT, with the offset of the first bad record in *ErrorOffset, unless the buffer is exactly a
// chain of whole records: each begins on a 4-byte boundary, has a NUL behind its name, and its successor follows at
// once.
NTKERNELAPI NTSTATUS NTAPI IoCheckEaBufferValidity(PFILE_FULL_EA_INFORMATION EaBuffer, ULONG EaLength,
                                                   PULONG ErrorOffset);

NT_EXTERN_C_END
