// Life of file objects. Cleanup goes out with the last handle, close with the last reference, on whatever thread drops
// it; both are waited for. Neither is sent for a file object whose create did not succeed.
#include "io/file.h"

#include <cstddef>
#include <cstring>

#include <nthost/faults.h>

#include "ex/pool_block.h"
#include "io/device.h"
#include "io/finish.h"
#include "io/range_lock.h"
#include "io/request.h"
#include "ke/thread.h"

namespace nthost::io {

namespace {

// Cleanup and close: the driver can only say that it did it, so its status is of no interest.
void SendClosing(PFILE_OBJECT file, UCHAR major)
{
    PDEVICE_OBJECT const device = IoGetRelatedDeviceObject(file);
    ++ke::CurrentThread()->Closing; // the request itself must not be missing either
    IrpRecord* const record = NewFileIrp(file, device, major, IRP_CLOSE_OPERATION | IRP_SYNCHRONOUS_API);
    if (record) (void)SendRequest(device, record);
    --ke::CurrentThread()->Closing;
}

void SendCleanup(PFILE_OBJECT file)
{
    const bool synchronous = HasFlag(file, FO_SYNCHRONOUS_IO);
    if (synchronous) LockFileObject(file);
    SendClosing(file, IRP_MJ_CLEANUP);
    SetFlag(file, FO_CLEANUP_COMPLETE);
    if (synchronous) UnlockFileObject(file);
}

// A process's locks go with its last handle; those of the last process with the cleanup.
void CloseFile(PEPROCESS process, void* body, ACCESS_MASK, ULONG processRemaining, ULONG remaining)
{
    auto* const file = static_cast<PFILE_OBJECT>(body);
    if (remaining == 0)
        SendCleanup(file);
    else if (processRemaining == 0)
        UnlockAllOf(file, process);
}

void DeleteFile(void* body)
{
    auto* const file = static_cast<PFILE_OBJECT>(body);
    if (HasFlag(file, FO_FILE_OPEN)) {
        // An open that never got a handle still has had its create.
        if (!HasFlag(file, FO_CLEANUP_COMPLETE)) SendCleanup(file);
        SendClosing(file, IRP_MJ_CLOSE);
    }
    if (file->FileName.Buffer) ExFreePoolWithTag(file->FileName.Buffer, 0);
    UnbindPort(file);
    UncountOpen(file->DeviceObject);
}

struct FlagOfOption {
    ULONG Option;
    ULONG Flag;
};

constexpr FlagOfOption FlagsOfOptions[] = {
    {FILE_SYNCHRONOUS_IO_ALERT, FO_SYNCHRONOUS_IO | FO_ALERTABLE_IO},
    {FILE_SYNCHRONOUS_IO_NONALERT, FO_SYNCHRONOUS_IO},
    {FILE_NO_INTERMEDIATE_BUFFERING, FO_NO_INTERMEDIATE_BUFFERING},
    {FILE_WRITE_THROUGH, FO_WRITE_THROUGH},
    {FILE_SEQUENTIAL_ONLY, FO_SEQUENTIAL_ONLY},
};

ULONG FlagsOf(ULONG createOptions)
{
    ULONG flags = 0;
    for (const FlagOfOption& row : FlagsOfOptions)
        if (createOptions & row.Option) flags |= row.Flag;
    return flags;
}

constexpr ULONG kNameTag = 'mNoI'; // IoNm

// A little room, so that a name that changes often finds its memory again.
USHORT RoomFor(USHORT length)
{
    for (USHORT room : {56, 120, 248})
        if (length <= room) return room;
    return length;
}

} // namespace

const GENERIC_MAPPING FileMapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};

OBJECT_TYPE FileType = {.Name = "File",
                        .Mapping = FileMapping,
                        .ValidAccess = FILE_ALL_ACCESS | ACCESS_SYSTEM_SECURITY,
                        .UsesDispatcherHeader = true,
                        .WaitOffset = offsetof(FILE_OBJECT, Event),
                        .Close = CloseFile,
                        .Delete = DeleteFile,
                        .Live = 0};

PFILE_OBJECT NewFileObject(PDEVICE_OBJECT device, ULONG createOptions)
{
    auto* const body = static_cast<FileBody*>(ob::CreateObject(&FileType, sizeof(FileBody)));
    if (!body) return nullptr;
    PFILE_OBJECT const file = &body->File;
    file->Type = IO_TYPE_FILE;
    file->Size = sizeof(FILE_OBJECT);
    file->DeviceObject = device;
    file->Flags = FlagsOf(createOptions);
    KeInitializeEvent(&file->Lock, SynchronizationEvent, FALSE);
    KeInitializeEvent(&file->Event, NotificationEvent, FALSE);
    InitializeListHead(&file->IrpList);
    return file;
}

bool SetFileName(PFILE_OBJECT file, const WCHAR* name, USHORT length)
{
    UNICODE_STRING& own = file->FileName;
    if (length > own.MaximumLength) {
        const USHORT room = RoomFor(length);
        auto* const buffer = static_cast<WCHAR*>(ex::AllocateForHost(PagedPool, room, kNameTag));
        if (!buffer) return false;
        if (own.Buffer) ExFreePoolWithTag(own.Buffer, 0);
        own.Buffer = buffer;
        own.MaximumLength = room;
    }
    if (length) memcpy(own.Buffer, name, length);
    own.Length = length;
    return true;
}

void LockFileObject(PFILE_OBJECT file)
{
    if (__atomic_exchange_n(&file->Busy, 1, __ATOMIC_SEQ_CST) == 0) return;
    __atomic_fetch_add(&file->Waiters, 1, __ATOMIC_SEQ_CST);
    while (__atomic_exchange_n(&file->Busy, 1, __ATOMIC_SEQ_CST) != 0)
        KeWaitForSingleObject(&file->Lock, Executive, KernelMode, FALSE, nullptr);
    __atomic_fetch_sub(&file->Waiters, 1, __ATOMIC_SEQ_CST);
}

void UnlockFileObject(PFILE_OBJECT file)
{
    __atomic_store_n(&file->Busy, 0, __ATOMIC_SEQ_CST);
    if (__atomic_load_n(&file->Waiters, __ATOMIC_SEQ_CST) != 0) KeSetEvent(&file->Lock, IO_NO_INCREMENT, FALSE);
}

} // namespace nthost::io

using namespace nthost;
using namespace nthost::io;

POBJECT_TYPE IoFileObjectType = &FileType;

NTSTATUS NTAPI IoReplaceFileObjectName(PFILE_OBJECT FileObject, PWSTR NewFileName, USHORT FileNameLength)
{
    if (FaultInjected("IoReplaceFileObjectName")) return STATUS_INSUFFICIENT_RESOURCES;
    return SetFileName(FileObject, NewFileName, FileNameLength) ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

PDEVICE_OBJECT NTAPI IoGetRelatedDeviceObject(PFILE_OBJECT FileObject)
{
    PDEVICE_OBJECT device = FileObject->DeviceObject;
    while (device->AttachedDevice) device = device->AttachedDevice;
    return device;
}
