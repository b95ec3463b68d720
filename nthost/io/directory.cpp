// Directory listings and change notification. A search name is captured with the request and lives as long as it does.
#include <cstring>

#include "io/request.h"
#include "ob/service.h"
#include "ob/capture.h"

namespace nthost::io {

namespace {

struct ListingRecord {
    FILE_INFORMATION_CLASS Class;
    ULONG Least; // room that the service demands
    ULONG Alignment;
};

constexpr ListingRecord Records[] = {
    {FileDirectoryInformation, sizeof(FILE_DIRECTORY_INFORMATION), 8},
    {FileFullDirectoryInformation, sizeof(FILE_FULL_DIR_INFORMATION), 8},
    {FileBothDirectoryInformation, sizeof(FILE_BOTH_DIR_INFORMATION), 8},
    {FileNamesInformation, sizeof(FILE_NAMES_INFORMATION), 4},
    {FileIdBothDirectoryInformation, sizeof(FILE_ID_BOTH_DIR_INFORMATION), 8},
    {FileIdFullDirectoryInformation, sizeof(FILE_ID_FULL_DIR_INFORMATION), 8},
};

[[nodiscard]] NTSTATUS CheckListing(FILE_INFORMATION_CLASS infoClass, void* buffer, ULONG length, KPROCESSOR_MODE mode)
{
    for (const ListingRecord& record : Records) {
        if (record.Class != infoClass) continue;
        if (length < record.Least) return STATUS_INFO_LENGTH_MISMATCH;
        return ob::ProbeUserForWrite(buffer, length, record.Alignment, mode);
    }
    return STATUS_INVALID_INFO_CLASS;
}

// Header and text in one block, which goes with the request's buffers. An empty name is none.
[[nodiscard]] NTSTATUS AttachName(Request& request, const ob::CapturedString& name)
{
    if (name.Empty()) return STATUS_SUCCESS;
    const USHORT length = name.Get()->Length;
    auto* const copy = static_cast<UNICODE_STRING*>(NewSystemBuffer(sizeof(UNICODE_STRING) + length));
    if (!copy) return STATUS_INSUFFICIENT_RESOURCES;
    copy->Length = copy->MaximumLength = length;
    copy->Buffer = reinterpret_cast<PWCH>(copy + 1);
    memcpy(copy->Buffer, name.Get()->Buffer, length);
    request.Irp()->Tail.Overlay.AuxiliaryBuffer = reinterpret_cast<PCHAR>(copy);
    request.Location()->Parameters.QueryDirectory.FileName = copy;
    return STATUS_SUCCESS;
}

NTSTATUS QueryDirectory(KPROCESSOR_MODE mode, HANDLE file, HANDLE event, PIO_APC_ROUTINE apcRoutine, PVOID apcContext,
                        PIO_STATUS_BLOCK statusBlock, PVOID buffer, ULONG length, FILE_INFORMATION_CLASS infoClass,
                        BOOLEAN single, PUNICODE_STRING fileName, BOOLEAN restart)
{
    NTSTATUS status = CheckListing(infoClass, buffer, length, mode);
    if (!NT_SUCCESS(status)) return status;
    ob::CapturedString name;
    status = ob::CaptureUnicodeString(fileName, mode, &name);
    if (!NT_SUCCESS(status)) return status;

    Request request;
    const ServiceCaller caller{mode, statusBlock, event, apcRoutine, apcContext};
    status = request.Open(caller, file, FILE_LIST_DIRECTORY, Service::Asynchronous);
    if (!NT_SUCCESS(status)) return status;
    status = request.Build(IRP_MJ_DIRECTORY_CONTROL, IRP_MN_QUERY_DIRECTORY);
    if (!NT_SUCCESS(status)) return status;
    auto& query = request.Location()->Parameters.QueryDirectory;
    query.Length = length;
    query.FileInformationClass = infoClass;
    request.Location()->Flags =
        static_cast<UCHAR>((restart ? SL_RESTART_SCAN : 0) | (single ? SL_RETURN_SINGLE_ENTRY : 0));
    status = AttachName(request, name);
    if (!NT_SUCCESS(status)) return status;
    status = request.Output(buffer, length);
    return NT_SUCCESS(status) ? request.Issue() : status;
}

NTSTATUS NotifyChange(KPROCESSOR_MODE mode, HANDLE file, HANDLE event, PIO_APC_ROUTINE apcRoutine, PVOID apcContext,
                      PIO_STATUS_BLOCK statusBlock, PVOID buffer, ULONG length, ULONG filter, BOOLEAN watchTree)
{
    if (filter == 0 || (filter & ~FILE_NOTIFY_VALID_MASK)) return STATUS_INVALID_PARAMETER;
    NTSTATUS status = ob::ProbeUserForWrite(buffer, length, 4, mode);
    if (!NT_SUCCESS(status)) return status;
    Request request;
    const ServiceCaller caller{mode, statusBlock, event, apcRoutine, apcContext};
    status = request.Open(caller, file, FILE_LIST_DIRECTORY, Service::Asynchronous);
    if (!NT_SUCCESS(status)) return status;
    status = request.Build(IRP_MJ_DIRECTORY_CONTROL, IRP_MN_NOTIFY_CHANGE_DIRECTORY);
    if (!NT_SUCCESS(status)) return status;
    auto& notify = request.Location()->Parameters.NotifyDirectory;
    notify.Length = length;
    notify.CompletionFilter = filter;
    request.Location()->Flags = watchTree ? SL_WATCH_TREE : 0;
    status = request.Output(buffer, length);
    return NT_SUCCESS(status) ? request.Issue() : status;
}

} // namespace

} // namespace nthost::io

NTHOST_SERVICE_PAIR(QueryDirectoryFile, nthost::io::QueryDirectory,
                    (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                     PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                     FILE_INFORMATION_CLASS FileInformationClass, BOOLEAN ReturnSingleEntry, PUNICODE_STRING FileName,
                     BOOLEAN RestartScan),
                    FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, FileInformation, Length,
                    FileInformationClass, ReturnSingleEntry, FileName, RestartScan)
NTHOST_SERVICE_PAIR(NotifyChangeDirectoryFile, nthost::io::NotifyChange,
                    (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                     PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, ULONG CompletionFilter,
                     BOOLEAN WatchTree),
                    FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, Buffer, Length, CompletionFilter,
                    WatchTree)
