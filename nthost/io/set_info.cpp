// Changes of file information. Mode, completion port and, on a file object for synchronous I/O, position are the file
// object's own and never reach the driver. A rename or link to a path comes with the target directory opened.
#include "io/completion_port.h"
#include "io/file.h"
#include "io/info_class.h"
#include "io/rename_target.h"
#include "io/request.h"
#include "ob/service.h"
#include "ob/capture.h"

namespace nthost::io {

namespace {

constexpr InfoClass Classes[] = {
    {FileBasicInformation, sizeof(FILE_BASIC_INFORMATION), 8, FILE_WRITE_ATTRIBUTES},
    {FileRenameInformation, sizeof(FILE_RENAME_INFORMATION), 8, DELETE},
    {FileLinkInformation, sizeof(FILE_LINK_INFORMATION), 8, 0},
    {FileDispositionInformation, sizeof(FILE_DISPOSITION_INFORMATION), 1, DELETE},
    {FilePositionInformation, sizeof(FILE_POSITION_INFORMATION), 8, 0},
    {FileModeInformation, sizeof(FILE_MODE_INFORMATION), 4, 0},
    {FileAllocationInformation, sizeof(FILE_ALLOCATION_INFORMATION), 8, FILE_WRITE_DATA},
    {FileEndOfFileInformation, sizeof(FILE_END_OF_FILE_INFORMATION), 8, FILE_WRITE_DATA},
    {FilePipeInformation, 8, 4, FILE_WRITE_ATTRIBUTES},
    {FilePipeRemoteInformation, 16, 8, FILE_WRITE_ATTRIBUTES},
    {FileMailslotSetInformation, 8, 8, FILE_WRITE_ATTRIBUTES},
    {FileObjectIdInformation, 72, 8, FILE_WRITE_DATA},
    {FileValidDataLengthInformation, sizeof(FILE_VALID_DATA_LENGTH_INFORMATION), 8, FILE_WRITE_DATA},
    {FileShortNameInformation, sizeof(FILE_NAME_INFORMATION), 4, DELETE},
    {FileCompletionInformation, sizeof(FILE_COMPLETION_INFORMATION), 8, 0},
    {FileIoCompletionNotificationInformation, sizeof(FILE_IO_COMPLETION_NOTIFICATION_INFORMATION), 4, 0},
};

struct Change {
    KPROCESSOR_MODE Mode;
    PIO_STATUS_BLOCK StatusBlock;
    void* Buffer;
    ULONG Length;
    FILE_INFORMATION_CLASS Class;
};

NTSTATUS AnswerDone(const Change& change)
{
    return ob::WriteUser(change.StatusBlock, IO_STATUS_BLOCK{{STATUS_SUCCESS}, 0}, change.Mode);
}

bool IsPosition(LARGE_INTEGER position, PFILE_OBJECT file)
{
    if (position.QuadPart < 0) return false;
    const ULONG sector = file->DeviceObject->SectorSize;
    return !HasFlag(file, FO_NO_INTERMEDIATE_BUFFERING) || sector <= 1 || position.QuadPart % sector == 0;
}

NTSTATUS SetPosition(const Change& change, PFILE_OBJECT file)
{
    FILE_POSITION_INFORMATION wanted;
    const NTSTATUS status =
        ob::ReadUser(static_cast<const FILE_POSITION_INFORMATION*>(change.Buffer), &wanted, change.Mode);
    if (!NT_SUCCESS(status)) return status;
    if (!IsPosition(wanted.CurrentByteOffset, file)) return STATUS_INVALID_PARAMETER;
    LockFileObject(file);
    file->CurrentByteOffset = wanted.CurrentByteOffset;
    UnlockFileObject(file);
    return AnswerDone(change);
}

constexpr ULONG SynchronousModes = FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT;

// A file object stays synchronous or not; which of the two kinds of wait can be changed.
bool IsMode(ULONG mode, PFILE_OBJECT file)
{
    if (mode & ~(SynchronousModes | FILE_WRITE_THROUGH | FILE_SEQUENTIAL_ONLY)) return false;
    const bool synchronous = HasFlag(file, FO_SYNCHRONOUS_IO);
    return synchronous == !!(mode & SynchronousModes) && (mode & SynchronousModes) != SynchronousModes;
}

NTSTATUS SetMode(const Change& change, PFILE_OBJECT file)
{
    FILE_MODE_INFORMATION wanted;
    const NTSTATUS status =
        ob::ReadUser(static_cast<const FILE_MODE_INFORMATION*>(change.Buffer), &wanted, change.Mode);
    if (!NT_SUCCESS(status)) return status;
    if (!IsMode(wanted.Mode, file)) return STATUS_INVALID_PARAMETER;
    // Nothing is held back of what is written unbuffered, so there it means nothing.
    if (!HasFlag(file, FO_NO_INTERMEDIATE_BUFFERING)) SetFlag(file, FO_WRITE_THROUGH, wanted.Mode & FILE_WRITE_THROUGH);
    SetFlag(file, FO_SEQUENTIAL_ONLY, wanted.Mode & FILE_SEQUENTIAL_ONLY);
    SetFlag(file, FO_ALERTABLE_IO, wanted.Mode & FILE_SYNCHRONOUS_IO_ALERT);
    return AnswerDone(change);
}

NTSTATUS SetPort(const Change& change, PFILE_OBJECT file)
{
    FILE_COMPLETION_INFORMATION binding;
    NTSTATUS status =
        ob::ReadUser(static_cast<const FILE_COMPLETION_INFORMATION*>(change.Buffer), &binding, change.Mode);
    if (NT_SUCCESS(status)) status = BindPort(file, binding, change.Mode);
    return NT_SUCCESS(status) ? AnswerDone(change) : status;
}

NTSTATUS SetNotification(const Change& change, PFILE_OBJECT file)
{
    constexpr ULONG Known =
        FILE_SKIP_COMPLETION_PORT_ON_SUCCESS | FILE_SKIP_SET_EVENT_ON_HANDLE | FILE_SKIP_SET_USER_EVENT_ON_FAST_IO;
    FILE_IO_COMPLETION_NOTIFICATION_INFORMATION wanted;
    const NTSTATUS status = ob::ReadUser(static_cast<const FILE_IO_COMPLETION_NOTIFICATION_INFORMATION*>(change.Buffer),
                                         &wanted, change.Mode);
    if (!NT_SUCCESS(status)) return status;
    if ((wanted.Flags & ~Known) || HasFlag(file, FO_SYNCHRONOUS_IO)) return STATUS_INVALID_PARAMETER;
    // Nobody takes them back: a request on its way may count on what it saw.
    if (wanted.Flags & FILE_SKIP_COMPLETION_PORT_ON_SUCCESS) SetFlag(file, FO_SKIP_COMPLETION_PORT, true);
    if (wanted.Flags & FILE_SKIP_SET_EVENT_ON_HANDLE) SetFlag(file, FO_SKIP_SET_EVENT, true);
    if (wanted.Flags & FILE_SKIP_SET_USER_EVENT_ON_FAST_IO) SetFlag(file, FO_SKIP_SET_FAST_IO, true);
    return AnswerDone(change);
}

bool NameFits(const FILE_RENAME_INFORMATION& info, ULONG length)
{
    return info.FileNameLength % sizeof(WCHAR) == 0 &&
           info.FileNameLength <= length - FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName);
}

NTSTATUS IssueRename(const Change& change, Request& request)
{
    const auto& info = *static_cast<const FILE_RENAME_INFORMATION*>(request.Irp()->AssociatedIrp.SystemBuffer);
    if (!NameFits(info, change.Length)) return STATUS_INVALID_PARAMETER;
    auto& parameters = request.Location()->Parameters.SetFile;
    parameters.ReplaceIfExists = info.ReplaceIfExists;
    if (!NamesATarget(info)) return request.Issue();
    const NTSTATUS status = OpenRenameTarget(request, info, change.Class, &parameters.FileObject);
    if (!NT_SUCCESS(status)) return status;
    PFILE_OBJECT const target = parameters.FileObject;
    const NTSTATUS issued = request.Issue();
    ObDereferenceObject(target);
    return issued;
}

NTSTATUS AskDriver(const Change& change, Request& request)
{
    NTSTATUS status = request.Build(IRP_MJ_SET_INFORMATION);
    if (!NT_SUCCESS(status)) return status;
    request.Irp()->Flags |= IRP_DEFER_IO_COMPLETION;
    auto& parameters = request.Location()->Parameters.SetFile;
    parameters.Length = change.Length;
    parameters.FileInformationClass = change.Class;
    status = request.Buffered(change.Buffer, change.Length, nullptr, 0);
    if (!NT_SUCCESS(status)) return status;
    const bool renames = change.Class == FileRenameInformation || change.Class == FileLinkInformation;
    return renames ? IssueRename(change, request) : request.Issue();
}

NTSTATUS Apply(const Change& change, Request& request)
{
    PFILE_OBJECT const file = request.File();
    if (change.Class == FileModeInformation) return SetMode(change, file);
    if (change.Class == FileCompletionInformation) return SetPort(change, file);
    if (change.Class == FileIoCompletionNotificationInformation) return SetNotification(change, file);
    const bool isPosition = change.Class == FilePositionInformation && HasFlag(file, FO_SYNCHRONOUS_IO);
    return isPosition ? SetPosition(change, file) : AskDriver(change, request);
}

NTSTATUS SetInformation(KPROCESSOR_MODE mode, HANDLE file, PIO_STATUS_BLOCK statusBlock, PVOID buffer, ULONG length,
                        FILE_INFORMATION_CLASS infoClass)
{
    const InfoClass* row = nullptr;
    NTSTATUS status = CheckClass(Classes, infoClass, length, &row);
    if (!NT_SUCCESS(status)) return status;
    status = ob::ProbeUserForRead(buffer, length, row->Alignment, mode);
    if (!NT_SUCCESS(status)) return status;
    Request request;
    status = request.Open({.Mode = mode, .StatusBlock = statusBlock}, file, row->Access, Service::AlwaysWaits);
    return NT_SUCCESS(status) ? Apply({mode, statusBlock, buffer, length, infoClass}, request) : status;
}

} // namespace

} // namespace nthost::io

NTHOST_SERVICE_PAIR(SetInformationFile, nthost::io::SetInformation,
                    (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                     FILE_INFORMATION_CLASS FileInformationClass),
                    FileHandle, IoStatusBlock, FileInformation, Length, FileInformationClass)
