// Byte-range locks: the services. The range travels in memory that belongs to the request, since a lock can wait long
// after its caller's call has returned.
#include "io/request.h"
#include "io/service.h"
#include "zw/capture.h"

namespace nthost::io {

namespace {

// Both are unsigned to whoever keeps the locks: a whole file is locked by the greatest length there is.
struct Range {
    LARGE_INTEGER Offset;
    LARGE_INTEGER Length;
};

[[nodiscard]] NTSTATUS CaptureRange(PLARGE_INTEGER offset, PLARGE_INTEGER length, KPROCESSOR_MODE mode, Range* range)
{
    const NTSTATUS status = zw::ReadUser(offset, &range->Offset, mode);
    return NT_SUCCESS(status) ? zw::ReadUser(length, &range->Length, mode) : status;
}

[[nodiscard]] NTSTATUS IssueLock(Request& request, UCHAR minor, UCHAR flags, const Range& range, ULONG key)
{
    // Whoever can read or write a range may lock it.
    NTSTATUS status = request.RequireAny(FILE_READ_DATA | FILE_WRITE_DATA);
    if (NT_SUCCESS(status)) status = request.Build(IRP_MJ_LOCK_CONTROL, minor);
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
    status = request.Open(caller, file, 0, Service::Asynchronous);
    if (!NT_SUCCESS(status)) return status;
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
    status = request.Open(caller, file, 0, Service::AlwaysWaits);
    if (!NT_SUCCESS(status)) return status;
    return IssueLock(request, IRP_MN_UNLOCK_SINGLE, 0, range, key);
}

} // namespace

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
