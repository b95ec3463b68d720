// Volume information, and flushing: services that always wait for the driver's answer.
#include "io/info_class.h"
#include "io/request.h"
#include "ob/service.h"
#include "ob/capture.h"

namespace nthost::io {

namespace {

constexpr ULONG ControlSize = 48, ObjectIdSize = 64, DriverPathSize = 12;

constexpr InfoClass QueryClasses[] = {
    {FileFsVolumeInformation, sizeof(FILE_FS_VOLUME_INFORMATION), 8, 0},
    {FileFsSizeInformation, sizeof(FILE_FS_SIZE_INFORMATION), 8, 0},
    {FileFsDeviceInformation, sizeof(FILE_FS_DEVICE_INFORMATION), 4, 0},
    {FileFsAttributeInformation, sizeof(FILE_FS_ATTRIBUTE_INFORMATION), 4, 0},
    {FileFsControlInformation, ControlSize, 8, FILE_READ_DATA},
    {FileFsFullSizeInformation, sizeof(FILE_FS_FULL_SIZE_INFORMATION), 8, 0},
    {FileFsObjectIdInformation, ObjectIdSize, 4, 0},
    {FileFsDriverPathInformation, DriverPathSize, 4, 0},
};

constexpr InfoClass SetClasses[] = {
    {FileFsLabelInformation, sizeof(FILE_FS_LABEL_INFORMATION), 4, FILE_WRITE_DATA},
    {FileFsControlInformation, ControlSize, 8, FILE_WRITE_DATA},
    {FileFsObjectIdInformation, ObjectIdSize, 4, FILE_WRITE_DATA},
};

NTSTATUS QueryVolume(KPROCESSOR_MODE mode, HANDLE file, PIO_STATUS_BLOCK statusBlock, PVOID buffer, ULONG length,
                     FS_INFORMATION_CLASS infoClass)
{
    const InfoClass* row = nullptr;
    NTSTATUS status = CheckClass(QueryClasses, infoClass, length, &row);
    if (!NT_SUCCESS(status)) return status;
    status = ob::ProbeUserForWrite(buffer, length, row->Alignment, mode);
    if (!NT_SUCCESS(status)) return status;
    Request request;
    status = request.Open({.Mode = mode, .StatusBlock = statusBlock}, file, row->Access, Service::AlwaysWaits);
    if (!NT_SUCCESS(status)) return status;
    status = request.Build(IRP_MJ_QUERY_VOLUME_INFORMATION);
    if (!NT_SUCCESS(status)) return status;
    auto& query = request.Location()->Parameters.QueryVolume;
    query.Length = length;
    query.FsInformationClass = infoClass;
    status = request.Buffered(nullptr, 0, buffer, length);
    return NT_SUCCESS(status) ? request.Issue() : status;
}

NTSTATUS SetVolume(KPROCESSOR_MODE mode, HANDLE file, PIO_STATUS_BLOCK statusBlock, PVOID buffer, ULONG length,
                   FS_INFORMATION_CLASS infoClass)
{
    const InfoClass* row = nullptr;
    NTSTATUS status = CheckClass(SetClasses, infoClass, length, &row);
    if (!NT_SUCCESS(status)) return status;
    status = ob::ProbeUserForRead(buffer, length, row->Alignment, mode);
    if (!NT_SUCCESS(status)) return status;
    Request request;
    status = request.Open({.Mode = mode, .StatusBlock = statusBlock}, file, row->Access, Service::AlwaysWaits);
    if (!NT_SUCCESS(status)) return status;
    status = request.Build(IRP_MJ_SET_VOLUME_INFORMATION);
    if (!NT_SUCCESS(status)) return status;
    auto& set = request.Location()->Parameters.SetVolume;
    set.Length = length;
    set.FsInformationClass = infoClass;
    status = request.Buffered(buffer, length, nullptr, 0);
    return NT_SUCCESS(status) ? request.Issue() : status;
}

NTSTATUS Flush(KPROCESSOR_MODE mode, HANDLE file, PIO_STATUS_BLOCK statusBlock)
{
    Request request;
    NTSTATUS status = request.Open({.Mode = mode, .StatusBlock = statusBlock}, file, 0, Service::AlwaysWaits);
    if (!NT_SUCCESS(status)) return status;
    // Who could not have written has nothing to flush, in whatever mode it asks.
    if (!(request.Granted() & (FILE_WRITE_DATA | FILE_APPEND_DATA))) return STATUS_ACCESS_DENIED;
    status = request.Build(IRP_MJ_FLUSH_BUFFERS);
    return NT_SUCCESS(status) ? request.Issue() : status;
}

} // namespace

} // namespace nthost::io

NTHOST_SERVICE_PAIR(QueryVolumeInformationFile, nthost::io::QueryVolume,
                    (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FsInformation, ULONG Length,
                     FS_INFORMATION_CLASS FsInformationClass),
                    FileHandle, IoStatusBlock, FsInformation, Length, FsInformationClass)
NTHOST_SERVICE_PAIR(SetVolumeInformationFile, nthost::io::SetVolume,
                    (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FsInformation, ULONG Length,
                     FS_INFORMATION_CLASS FsInformationClass),
                    FileHandle, IoStatusBlock, FsInformation, Length, FsInformationClass)
NTHOST_SERVICE_PAIR(FlushBuffersFile, nthost::io::Flush, (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock),
                    FileHandle, IoStatusBlock)
