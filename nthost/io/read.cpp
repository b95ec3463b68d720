// Reading: the position rules, and paging reads. How the data travels is the device's choice (DO_BUFFERED_IO,
// DO_DIRECT_IO, or the caller's own address).
#include "io/finish.h"
#include "io/request.h"
#include "io/service.h"
#include "zw/capture.h"

namespace nthost::io {

namespace {

struct Transfer {
    KPROCESSOR_MODE Mode;
    void* Buffer;
    ULONG Length;
    PLARGE_INTEGER ByteOffset; // the caller's, or null
    PULONG Key;                // the caller's, or null
};

struct Position {
    LARGE_INTEGER Offset{};
    bool Current = false; // the file object's own
};

[[nodiscard]] NTSTATUS CapturePosition(const Transfer& transfer, PFILE_OBJECT file, Position* position)
{
    const bool synchronous = file->Flags & FO_SYNCHRONOUS_IO;
    position->Current = synchronous && !transfer.ByteOffset;
    if (position->Current) return STATUS_SUCCESS;
    if (!transfer.ByteOffset) return STATUS_INVALID_PARAMETER;
    const NTSTATUS status = zw::ReadUser(transfer.ByteOffset, &position->Offset, transfer.Mode);
    if (!NT_SUCCESS(status)) return status;
    position->Current =
        synchronous && position->Offset.HighPart == -1 && position->Offset.LowPart == FILE_USE_FILE_POINTER_POSITION;
    return position->Current || position->Offset.QuadPart >= 0 ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

// A file opened without intermediate buffering is read by whole sectors.
bool IsAligned(const Transfer& transfer, const Position& position, PFILE_OBJECT file)
{
    if (!(file->Flags & FO_NO_INTERMEDIATE_BUFFERING)) return true;
    const ULONG sector = file->DeviceObject->SectorSize;
    if (sector <= 1) return true;
    return transfer.Length % sector == 0 && (position.Current || position.Offset.QuadPart % sector == 0);
}

[[nodiscard]] NTSTATUS AttachReadBuffer(Request& request, const Transfer& transfer)
{
    if (request.Device()->Flags & DO_BUFFERED_IO) return request.Buffered(nullptr, 0, transfer.Buffer, transfer.Length);
    request.Neither(transfer.Buffer);
    if (request.Device()->Flags & DO_DIRECT_IO) return request.Direct(transfer.Buffer, transfer.Length, IoWriteAccess);
    return STATUS_SUCCESS;
}

[[nodiscard]] NTSTATUS IssueRead(Request& request, const Transfer& transfer, ULONG key, const Position& position)
{
    NTSTATUS status = request.Build(IRP_MJ_READ);
    if (!NT_SUCCESS(status)) return status;
    auto& read = request.Location()->Parameters.Read;
    read.Length = transfer.Length;
    read.Key = key;
    // Under the file object's lock, which Build has taken: two readers do not get the same bytes.
    read.ByteOffset = position.Current ? request.File()->CurrentByteOffset : position.Offset;
    request.Irp()->Flags |= IRP_READ_OPERATION | IRP_DEFER_IO_COMPLETION;
    status = AttachReadBuffer(request, transfer);
    return NT_SUCCESS(status) ? request.Issue() : status;
}

NTSTATUS Read(KPROCESSOR_MODE mode, HANDLE file, HANDLE event, PIO_APC_ROUTINE apcRoutine, PVOID apcContext,
              PIO_STATUS_BLOCK statusBlock, PVOID buffer, ULONG length, PLARGE_INTEGER byteOffset, PULONG keyAddress)
{
    const Transfer transfer{mode, buffer, length, byteOffset, keyAddress};
    Request request;
    const ServiceCaller caller{mode, statusBlock, event, apcRoutine, apcContext};
    NTSTATUS status = request.Open(caller, file, FILE_READ_DATA, Service::Asynchronous);
    if (!NT_SUCCESS(status)) return status;
    status = zw::ProbeUserForWrite(buffer, length, 1, mode);
    if (!NT_SUCCESS(status)) return status;
    ULONG key = 0;
    if (keyAddress && !NT_SUCCESS(status = zw::ReadUser(keyAddress, &key, mode))) return status;
    Position position;
    status = CapturePosition(transfer, request.File(), &position);
    if (!NT_SUCCESS(status)) return status;
    if (!IsAligned(transfer, position, request.File())) return STATUS_INVALID_PARAMETER;
    return IssueRead(request, transfer, key, position);
}

// The memory manager's request carries locked pages and has no caller whose address could be used.
IrpRecord* NewPagingRead(PFILE_OBJECT file, PDEVICE_OBJECT device, PMDL mdl, LARGE_INTEGER offset)
{
    constexpr ULONG Flags = IRP_PAGING_IO | IRP_NOCACHE | IRP_SYNCHRONOUS_PAGING_IO;
    IrpRecord* const record = NewFileIrp(file, device, IRP_MJ_READ, Flags);
    if (!record) return nullptr;
    record->Irp.UserBuffer = MmGetMdlVirtualAddress(mdl);
    // The request's end would take the file object's event; a paging request has its own.
    record->Irp.Tail.Overlay.OriginalFileObject = nullptr;
    auto& read = IoGetNextIrpStackLocation(&record->Irp)->Parameters.Read;
    read.Length = MmGetMdlByteCount(mdl);
    read.ByteOffset = offset;
    return record;
}

} // namespace

} // namespace nthost::io

NTSTATUS NTAPI IoPageRead(PFILE_OBJECT FileObject, PMDL MemoryDescriptorList, PLARGE_INTEGER StartingOffset,
                          PKEVENT Event, PIO_STATUS_BLOCK IoStatusBlock)
{
    using namespace nthost::io;
    PDEVICE_OBJECT const device = IoGetRelatedDeviceObject(FileObject);
    IrpRecord* const record = NewPagingRead(FileObject, device, MemoryDescriptorList, *StartingOffset);
    if (!record) return STATUS_INSUFFICIENT_RESOURCES;
    // The pages stay the caller's: the request gets a description of its own, so that its end frees that one.
    PMDL const mdl =
        IoAllocateMdl(record->Irp.UserBuffer, MmGetMdlByteCount(MemoryDescriptorList), FALSE, FALSE, &record->Irp);
    if (!mdl) {
        IoFreeIrp(&record->Irp);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    mdl->MdlFlags |= MDL_MAPPED_TO_SYSTEM_VA | MDL_PARTIAL;
    mdl->MappedSystemVa =
        MmMapLockedPagesSpecifyCache(MemoryDescriptorList, KernelMode, MmCached, nullptr, FALSE, NormalPagePriority);
    const NTSTATUS status = SendRequest(device, record, IoStatusBlock);
    KeSetEvent(Event, IO_NO_INCREMENT, FALSE);
    return status;
}

NTHOST_SERVICE_PAIR(ReadFile, nthost::io::Read,
                    (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                     PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset, PULONG Key),
                    FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, Buffer, Length, ByteOffset, Key)
