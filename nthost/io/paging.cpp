// Paging reads and writes, and what the memory manager asks about a file's size. Takes no lock: the pages are kept by
// the description that the request carries.
#include "io/paging.h"

#include "io/finish.h"
#include "io/request.h"

namespace nthost::io {

namespace {

IrpRecord* NewPagingIrp(PFILE_OBJECT file, PDEVICE_OBJECT device, UCHAR major, ULONG flags)
{
    IrpRecord* const record = NewFileIrp(file, device, major, IRP_PAGING_IO | flags);
    // The request's end would take the file object's event; a paging request has its own.
    if (record) record->Irp.Tail.Overlay.OriginalFileObject = nullptr;
    return record;
}

void FillTransfer(IrpRecord* record, const PagingTransfer& transfer)
{
    IRP& irp = record->Irp;
    irp.MdlAddress = transfer.Mdl;
    irp.UserBuffer = MmGetMdlVirtualAddress(transfer.Mdl);
    PIO_STACK_LOCATION const location = IoGetNextIrpStackLocation(&irp);
    const ULONG length = MmGetMdlByteCount(transfer.Mdl);
    if (transfer.Major == IRP_MJ_READ) {
        location->Parameters.Read.Length = length;
        location->Parameters.Read.ByteOffset.QuadPart = transfer.Offset;
    } else {
        location->Parameters.Write.Length = length;
        location->Parameters.Write.ByteOffset.QuadPart = transfer.Offset;
    }
}

// A size question travels like a paging request, so that a file system answers it while its own locks are held.
NTSTATUS SendInformation(PFILE_OBJECT file, UCHAR major, FILE_INFORMATION_CLASS kind, void* buffer, ULONG length)
{
    PDEVICE_OBJECT const device = IoGetRelatedDeviceObject(file);
    IrpRecord* const record = NewPagingIrp(file, device, major, IRP_SYNCHRONOUS_PAGING_IO);
    if (!record) return STATUS_INSUFFICIENT_RESOURCES;
    record->Irp.AssociatedIrp.SystemBuffer = buffer;
    PIO_STACK_LOCATION const location = IoGetNextIrpStackLocation(&record->Irp);
    if (major == IRP_MJ_QUERY_INFORMATION) {
        location->Parameters.QueryFile.Length = length;
        location->Parameters.QueryFile.FileInformationClass = kind;
    } else {
        location->Parameters.SetFile.Length = length;
        location->Parameters.SetFile.FileInformationClass = kind;
    }
    return SendRequest(device, record);
}

} // namespace

NTSTATUS SendPaging(const PagingTransfer& transfer, IO_STATUS_BLOCK* result)
{
    PDEVICE_OBJECT const device = IoGetRelatedDeviceObject(transfer.File);
    const ULONG flags = IRP_NOCACHE | (transfer.Synchronous ? IRP_SYNCHRONOUS_PAGING_IO : 0);
    IrpRecord* const record = NewPagingIrp(transfer.File, device, transfer.Major, flags);
    if (!record) {
        MmUnlockPages(transfer.Mdl);
        IoFreeMdl(transfer.Mdl);
        *result = {{STATUS_INSUFFICIENT_RESOURCES}, 0};
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    FillTransfer(record, transfer);
    return SendRequest(device, record, result);
}

NTSTATUS QueryFileSize(PFILE_OBJECT file, LONGLONG* size)
{
    FILE_STANDARD_INFORMATION information{};
    const NTSTATUS status =
        SendInformation(file, IRP_MJ_QUERY_INFORMATION, FileStandardInformation, &information, sizeof information);
    if (!NT_SUCCESS(status)) return status;
    *size = information.EndOfFile.QuadPart;
    return information.Directory ? STATUS_FILE_IS_A_DIRECTORY : STATUS_SUCCESS;
}

NTSTATUS SetFileSize(PFILE_OBJECT file, LONGLONG size)
{
    FILE_END_OF_FILE_INFORMATION information{};
    information.EndOfFile.QuadPart = size;
    return SendInformation(file, IRP_MJ_SET_INFORMATION, FileEndOfFileInformation, &information, sizeof information);
}

} // namespace nthost::io
