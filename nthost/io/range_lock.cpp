// Byte-range locks: the services, and the end of a process's locks. A driver that offers it is asked without a packet
// first. The range of one travels in memory that belongs to the request, since a lock can wait long
// after its caller's call has returned.
#include "io/range_lock.h"

#include <nthost/process.h>

#include "io/fast_io.h"
#include "io/file.h"
#include "io/finish.h"
#include "io/request.h"
#include "ob/service.h"
#include "ke/thread.h"
#include "ob/capture.h"

namespace nthost::io {

namespace {

// Both are unsigned to whoever keeps the locks: a whole file is locked by the greatest length there is.
struct Range {
    LARGE_INTEGER Offset;
    LARGE_INTEGER Length;
};

[[nodiscard]] NTSTATUS CaptureRange(PLARGE_INTEGER offset, PLARGE_INTEGER length, KPROCESSOR_MODE mode, Range* range)
{
    const NTSTATUS status = ob::ReadUser(offset, &range->Offset, mode);
    return NT_SUCCESS(status) ? ob::ReadUser(length, &range->Length, mode) : status;
}

// True if the driver has answered, with the service's status.
template <typename Slot, typename... Args>
bool LockFast(Request& request, const char* name, Slot _FAST_IO_DISPATCH::*slot, NTSTATUS* status, Range range,
              Args... arguments)
{
    PDEVICE_OBJECT const device = request.Device();
    if (!request.MayBeFast() || !FastIoRoutine(device, slot)) return false;
    request.LockFile();
    IO_STATUS_BLOCK result{};
    if (!DoneFast(device, name, slot, &result, request.File(), &range.Offset, &range.Length, PsGetCurrentProcess(),
                  arguments...))
        return false;
    *status = NT_ERROR(result.Status) ? result.Status : request.EndFast(result);
    return true;
}

// Whoever can read or write a range may lock it.
[[nodiscard]] NTSTATUS OpenForLock(Request& request, const ServiceCaller& caller, HANDLE file, Service service)
{
    const NTSTATUS status = request.Open(caller, file, 0, service);
    if (!NT_SUCCESS(status)) return status;
    return request.RequireAny(FILE_READ_DATA | FILE_WRITE_DATA);
}

[[nodiscard]] NTSTATUS IssueLock(Request& request, UCHAR minor, UCHAR flags, const Range& range, ULONG key)
{
    NTSTATUS status = request.Build(IRP_MJ_LOCK_CONTROL, minor);
    if (!NT_SUCCESS(status)) return status;
    auto* const length = static_cast<LARGE_INTEGER*>(NewSystemBuffer(sizeof(LARGE_INTEGER)));
    if (!length) return STATUS_INSUFFICIENT_RESOURCES;
    *length = range.Length;
    request.Irp()->Tail.Overlay.AuxiliaryBuffer = reinterpret_cast<PCHAR>(length);
    request.Location()->Flags = flags;
    auto& lock = request.Location()->Parameters.LockControl;
    lock.Length = length;
    lock.Key = key;
    lock.ByteOffset = range.Offset;
    return request.Issue();
}

NTSTATUS Lock(KPROCESSOR_MODE mode, HANDLE file, HANDLE event, PIO_APC_ROUTINE apcRoutine, PVOID apcContext,
              PIO_STATUS_BLOCK statusBlock, PLARGE_INTEGER offset, PLARGE_INTEGER length, ULONG key,
              BOOLEAN failImmediately, BOOLEAN exclusive)
{
    Range range;
    NTSTATUS status = CaptureRange(offset, length, mode, &range);
    if (!NT_SUCCESS(status)) return status;
    Request request;
    const ServiceCaller caller{mode, statusBlock, event, apcRoutine, apcContext};
    status = OpenForLock(request, caller, file, Service::Asynchronous);
    if (!NT_SUCCESS(status)) return status;
    // From here on the process's locks have to be undone with its last handle.
    __atomic_store_n(&request.File()->LockOperation, BOOLEAN{TRUE}, __ATOMIC_RELAXED);
    if (LockFast(request, "FastIoLock", &_FAST_IO_DISPATCH::FastIoLock, &status, range, key, failImmediately,
                 exclusive))
        return status;
    const int flags = (failImmediately ? SL_FAIL_IMMEDIATELY : 0) | (exclusive ? SL_EXCLUSIVE_LOCK : 0);
    return IssueLock(request, IRP_MN_LOCK, static_cast<UCHAR>(flags), range, key);
}

NTSTATUS Unlock(KPROCESSOR_MODE mode, HANDLE file, PIO_STATUS_BLOCK statusBlock, PLARGE_INTEGER offset,
                PLARGE_INTEGER length, ULONG key)
{
    Range range;
    NTSTATUS status = CaptureRange(offset, length, mode, &range);
    if (!NT_SUCCESS(status)) return status;
    Request request;
    const ServiceCaller caller{.Mode = mode, .StatusBlock = statusBlock};
    status = OpenForLock(request, caller, file, Service::AlwaysWaits);
    if (!NT_SUCCESS(status)) return status;
    if (LockFast(request, "FastIoUnlockSingle", &_FAST_IO_DISPATCH::FastIoUnlockSingle, &status, range, key))
        return status;
    return IssueLock(request, IRP_MN_UNLOCK_SINGLE, 0, range, key);
}

void SendUnlockAll(PFILE_OBJECT file, PDEVICE_OBJECT device)
{
    _ETHREAD* const thread = ke::CurrentThread();
    ++thread->Closing; // the request must not be missing, or the locks would stay for good
    IrpRecord* const record = NewFileIrp(file, device, IRP_MJ_LOCK_CONTROL, IRP_SYNCHRONOUS_API);
    --thread->Closing;
    if (!record) return;
    IoGetNextIrpStackLocation(&record->Irp)->MinorFunction = IRP_MN_UNLOCK_ALL;
    (void)SendRequest(device, record);
}

} // namespace

void UnlockAllOf(PFILE_OBJECT file, PEPROCESS process)
{
    if (!__atomic_load_n(&file->LockOperation, __ATOMIC_RELAXED)) return;
    PDEVICE_OBJECT const device = IoGetRelatedDeviceObject(file);
    const bool synchronous = HasFlag(file, FO_SYNCHRONOUS_IO);
    const ActAs owner(process, KernelMode);
    if (synchronous) LockFileObject(file);
    IO_STATUS_BLOCK result{};
    if (!DoneFast(device, "FastIoUnlockAll", &_FAST_IO_DISPATCH::FastIoUnlockAll, &result, file, process))
        SendUnlockAll(file, device);
    if (synchronous) UnlockFileObject(file);
}

} // namespace nthost::io

NTHOST_SERVICE_PAIR(LockFile, nthost::io::Lock,
                    (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                     PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER ByteOffset, PLARGE_INTEGER Length, ULONG Key,
                     BOOLEAN FailImmediately, BOOLEAN ExclusiveLock),
                    FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, ByteOffset, Length, Key, FailImmediately,
                    ExclusiveLock)
NTHOST_SERVICE_PAIR(UnlockFile, nthost::io::Unlock,
                    (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER ByteOffset,
                     PLARGE_INTEGER Length, ULONG Key),
                    FileHandle, IoStatusBlock, ByteOffset, Length, Key)
