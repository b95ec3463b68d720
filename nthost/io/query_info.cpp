// Queries of file information. A driver that offers fast queries is asked that way first. What only the I/O manager
// knows of a file object it answers itself: access, mode, alignment, and the position of a file object for synchronous
// I/O; its part of FileAllInformation comes after the driver's.
#include "io/fast_io.h"
#include "io/file.h"
#include "io/info_class.h"
#include "io/request.h"
#include "ob/service.h"
#include "ob/capture.h"

namespace nthost::io {

namespace {

constexpr InfoClass Classes[] = {
    {FileBasicInformation, sizeof(FILE_BASIC_INFORMATION), 8, FILE_READ_ATTRIBUTES},
    {FileStandardInformation, sizeof(FILE_STANDARD_INFORMATION), 8, 0},
    {FileInternalInformation, sizeof(FILE_INTERNAL_INFORMATION), 8, 0},
    {FileEaInformation, sizeof(FILE_EA_INFORMATION), 4, 0},
    {FileAccessInformation, sizeof(FILE_ACCESS_INFORMATION), 4, 0},
    {FileNameInformation, sizeof(FILE_NAME_INFORMATION), 4, 0},
    {FilePositionInformation, sizeof(FILE_POSITION_INFORMATION), 8, 0},
    {FileModeInformation, sizeof(FILE_MODE_INFORMATION), 4, 0},
    {FileAlignmentInformation, sizeof(FILE_ALIGNMENT_INFORMATION), 4, 0},
    {FileAllInformation, sizeof(FILE_ALL_INFORMATION), 8, FILE_READ_ATTRIBUTES},
    {FileAlternateNameInformation, sizeof(FILE_NAME_INFORMATION), 4, 0},
    {FileStreamInformation, 32, 8, 0},
    {FilePipeInformation, 8, 4, FILE_READ_ATTRIBUTES},
    {FilePipeLocalInformation, 40, 4, FILE_READ_ATTRIBUTES},
    {FilePipeRemoteInformation, 16, 8, FILE_READ_ATTRIBUTES},
    {FileMailslotQueryInformation, 24, 8, FILE_READ_ATTRIBUTES},
    {FileCompressionInformation, 16, 8, 0},
    {FileObjectIdInformation, 72, 8, 0},
    {FileReparsePointInformation, 16, 8, 0},
    {FileNetworkOpenInformation, sizeof(FILE_NETWORK_OPEN_INFORMATION), 8, FILE_READ_ATTRIBUTES},
    {FileAttributeTagInformation, sizeof(FILE_ATTRIBUTE_TAG_INFORMATION), 4, FILE_READ_ATTRIBUTES},
    {FileIoCompletionNotificationInformation, sizeof(FILE_IO_COMPLETION_NOTIFICATION_INFORMATION), 4, 0},
};

struct Query {
    KPROCESSOR_MODE Mode;
    PIO_STATUS_BLOCK StatusBlock;
    void* Buffer;
    ULONG Length;
    FILE_INFORMATION_CLASS Class;
};

ULONG ModeOf(PFILE_OBJECT file)
{
    const ULONG flags = FileFlags(file);
    const ULONG waiting = flags & FO_ALERTABLE_IO ? FILE_SYNCHRONOUS_IO_ALERT : FILE_SYNCHRONOUS_IO_NONALERT;
    return (flags & FO_SYNCHRONOUS_IO ? waiting : 0) | (flags & FO_WRITE_THROUGH ? FILE_WRITE_THROUGH : 0) |
           (flags & FO_SEQUENTIAL_ONLY ? FILE_SEQUENTIAL_ONLY : 0) |
           (flags & FO_NO_INTERMEDIATE_BUFFERING ? FILE_NO_INTERMEDIATE_BUFFERING : 0) |
           (flags & FO_DELETE_ON_CLOSE ? FILE_DELETE_ON_CLOSE : 0);
}

template <typename T>
NTSTATUS Answer(const Query& query, const T& value)
{
    const NTSTATUS status = ob::WriteUser(static_cast<T*>(query.Buffer), value, query.Mode);
    if (!NT_SUCCESS(status)) return status;
    return ob::WriteUser(query.StatusBlock, IO_STATUS_BLOCK{{STATUS_SUCCESS}, sizeof(T)}, query.Mode);
}

NTSTATUS AnswerPosition(const Query& query, PFILE_OBJECT file)
{
    LockFileObject(file);
    const FILE_POSITION_INFORMATION position{file->CurrentByteOffset};
    UnlockFileObject(file);
    return Answer(query, position);
}

// What the driver has reported of the fixed part is there for the I/O manager to complete.
NTSTATUS CompleteAll(const Query& query, const Request& request)
{
    if (request.Result().Information < FIELD_OFFSET(FILE_ALL_INFORMATION, NameInformation)) return STATUS_SUCCESS;
    auto* const all = static_cast<FILE_ALL_INFORMATION*>(query.Buffer);
    NTSTATUS status = ob::WriteUser(&all->AccessInformation, {request.Granted()}, query.Mode);
    if (NT_SUCCESS(status)) status = ob::WriteUser(&all->ModeInformation, {ModeOf(request.File())}, query.Mode);
    if (!NT_SUCCESS(status)) return status;
    return ob::WriteUser(&all->AlignmentInformation, {request.Device()->AlignmentRequirement}, query.Mode);
}

NTSTATUS AskDriver(const Query& query, Request& request)
{
    NTSTATUS status = request.Build(IRP_MJ_QUERY_INFORMATION);
    if (!NT_SUCCESS(status)) return status;
    request.Irp()->Flags |= IRP_DEFER_IO_COMPLETION;
    auto& parameters = request.Location()->Parameters.QueryFile;
    parameters.Length = query.Length;
    parameters.FileInformationClass = query.Class;
    status = request.Buffered(nullptr, 0, query.Buffer, query.Length);
    if (!NT_SUCCESS(status)) return status;
    status = request.Issue();
    if (NT_ERROR(status) || query.Class != FileAllInformation) return status;
    const NTSTATUS completed = CompleteAll(query, request);
    return NT_SUCCESS(completed) ? status : completed;
}

// The driver fills the system's memory. True if it has answered, with the service's status.
template <typename Info, typename Slot>
bool AskFast(const Query& query, Request& request, const char* name, Slot _FAST_IO_DISPATCH::*slot, NTSTATUS* status)
{
    PDEVICE_OBJECT const device = request.Device();
    if (!FastIoRoutine(device, slot)) return false;
    request.LockFile();
    Info info{};
    IO_STATUS_BLOCK result{};
    if (!DoneFast(device, name, slot, &result, request.File(), BOOLEAN{TRUE}, &info)) return false;
    if (!NT_ERROR(result.Status))
        *status = ob::WriteUser(static_cast<Info*>(query.Buffer), info, query.Mode);
    else
        *status = result.Status;
    // An error that the service returns is told nowhere else.
    if (!NT_ERROR(*status)) *status = request.EndFast(result);
    return true;
}

bool AskFast(const Query& query, Request& request, NTSTATUS* status)
{
    switch (query.Class) {
    case FileBasicInformation:
        return AskFast<FILE_BASIC_INFORMATION>(query, request, "FastIoQueryBasicInfo",
                                               &_FAST_IO_DISPATCH::FastIoQueryBasicInfo, status);
    case FileStandardInformation:
        return AskFast<FILE_STANDARD_INFORMATION>(query, request, "FastIoQueryStandardInfo",
                                                  &_FAST_IO_DISPATCH::FastIoQueryStandardInfo, status);
    case FileNetworkOpenInformation:
        return AskFast<FILE_NETWORK_OPEN_INFORMATION>(query, request, "FastIoQueryNetworkOpenInfo",
                                                      &_FAST_IO_DISPATCH::FastIoQueryNetworkOpenInfo, status);
    default: return false;
    }
}

FILE_IO_COMPLETION_NOTIFICATION_INFORMATION NotificationOf(PFILE_OBJECT file)
{
    const ULONG flags = FileFlags(file);
    return {(flags & FO_SKIP_COMPLETION_PORT ? FILE_SKIP_COMPLETION_PORT_ON_SUCCESS : 0) |
            (flags & FO_SKIP_SET_EVENT ? FILE_SKIP_SET_EVENT_ON_HANDLE : 0) |
            (flags & FO_SKIP_SET_FAST_IO ? FILE_SKIP_SET_USER_EVENT_ON_FAST_IO : 0)};
}

NTSTATUS AnswerOrAsk(const Query& query, Request& request)
{
    PFILE_OBJECT const file = request.File();
    NTSTATUS status;
    if (AskFast(query, request, &status)) return status;
    switch (query.Class) {
    case FileAccessInformation: return Answer(query, FILE_ACCESS_INFORMATION{request.Granted()});
    case FileModeInformation: return Answer(query, FILE_MODE_INFORMATION{ModeOf(file)});
    case FileAlignmentInformation:
        return Answer(query, FILE_ALIGNMENT_INFORMATION{request.Device()->AlignmentRequirement});
    case FilePositionInformation:
        return HasFlag(file, FO_SYNCHRONOUS_IO) ? AnswerPosition(query, file) : AskDriver(query, request);
    case FileIoCompletionNotificationInformation: return Answer(query, NotificationOf(file));
    default: return AskDriver(query, request);
    }
}

NTSTATUS QueryInformation(KPROCESSOR_MODE mode, HANDLE file, PIO_STATUS_BLOCK statusBlock, PVOID buffer, ULONG length,
                          FILE_INFORMATION_CLASS infoClass)
{
    const InfoClass* row = nullptr;
    NTSTATUS status = CheckClass(Classes, infoClass, length, &row);
    if (!NT_SUCCESS(status)) return status;
    status = ob::ProbeUserForWrite(buffer, length, row->Alignment, mode);
    if (!NT_SUCCESS(status)) return status;
    Request request;
    status = request.Open({.Mode = mode, .StatusBlock = statusBlock}, file, row->Access, Service::AlwaysWaits);
    return NT_SUCCESS(status) ? AnswerOrAsk({mode, statusBlock, buffer, length, infoClass}, request) : status;
}

} // namespace

} // namespace nthost::io

NTHOST_SERVICE_PAIR(QueryInformationFile, nthost::io::QueryInformation,
                    (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                     FILE_INFORMATION_CLASS FileInformationClass),
                    FileHandle, IoStatusBlock, FileInformation, Length, FileInformationClass)
