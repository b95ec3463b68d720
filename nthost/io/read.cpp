// Paging reads: what the memory manager asks of a file system when a page is missing.
#include "io/finish.h"
#include "io/request.h"

namespace nthost::io {

namespace {

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
