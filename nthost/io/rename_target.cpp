// The open that precedes a rename or a link to a path: the file system opens the directory of the new name, says
// whether the name is taken, and leaves the last component in the file object. No lock is taken here; the source's file
// object may be locked by the request.
#include "io/rename_target.h"

#include "io/finish.h"
#include "io/file.h"
#include "io/open.h"

namespace nthost::io {

namespace {

// The system buffer of this request is the result itself.
[[nodiscard]] NTSTATUS QueryBasic(PFILE_OBJECT file, FILE_BASIC_INFORMATION* info)
{
    PDEVICE_OBJECT const device = IoGetRelatedDeviceObject(file);
    IrpRecord* const record = NewFileIrp(file, device, IRP_MJ_QUERY_INFORMATION, IRP_SYNCHRONOUS_API | IRP_BUFFERED_IO);
    if (!record) return STATUS_INSUFFICIENT_RESOURCES;
    record->Irp.AssociatedIrp.SystemBuffer = info;
    auto& query = IoGetNextIrpStackLocation(&record->Irp)->Parameters.QueryFile;
    query.Length = sizeof(*info);
    query.FileInformationClass = FileBasicInformation;
    return SendRequest(device, record);
}

// The target directory gains a file or a subdirectory; a link is always one to a file.
[[nodiscard]] NTSTATUS AccessToTarget(PFILE_OBJECT source, FILE_INFORMATION_CLASS infoClass, ACCESS_MASK* access)
{
    *access = FILE_WRITE_DATA | SYNCHRONIZE;
    if (infoClass == FileLinkInformation) return STATUS_SUCCESS;
    FILE_BASIC_INFORMATION basic{};
    const NTSTATUS status = QueryBasic(source, &basic);
    if (NT_SUCCESS(status) && (basic.FileAttributes & FILE_ATTRIBUTE_DIRECTORY))
        *access = FILE_ADD_SUBDIRECTORY | SYNCHRONIZE;
    return status;
}

[[nodiscard]] NTSTATUS OpenTarget(const Request& request, const FILE_RENAME_INFORMATION& info, ACCESS_MASK access,
                                  OpenedFile* opened)
{
    if (info.FileNameLength > MAXUSHORT) return STATUS_INVALID_PARAMETER;
    UNICODE_STRING name;
    name.Length = name.MaximumLength = static_cast<USHORT>(info.FileNameLength);
    name.Buffer = const_cast<PWCH>(info.FileName);
    OpenParameters open{};
    open.Mode = request.Irp()->RequestorMode;
    open.Name = &name;
    open.Attributes = HasFlag(request.File(), FO_OPENED_CASE_SENSITIVE) ? 0 : OBJ_CASE_INSENSITIVE;
    open.DesiredAccess = access;
    open.ShareAccess = FILE_SHARE_READ | FILE_SHARE_WRITE;
    open.Disposition = FILE_OPEN;
    open.Options = FILE_OPEN_FOR_BACKUP_INTENT;
    open.LocationFlags = SL_OPEN_TARGET_DIRECTORY;
    NTSTATUS status = ReferenceRelated(info.RootDirectory, open.Mode, &open.Related);
    if (!NT_SUCCESS(status)) return status;
    status = OpenFile(open, opened);
    if (open.Related) ObDereferenceObject(open.Related);
    return status;
}

// A rename may change nothing but the case of the source's own name, so whether a name that is taken stands in the way
// is for the file system to say. A link never has that excuse.
[[nodiscard]] NTSTATUS CheckTarget(const Request& request, const FILE_RENAME_INFORMATION& info,
                                   FILE_INFORMATION_CLASS infoClass, const OpenedFile& opened)
{
    const bool exists = opened.Result.Information == FILE_EXISTS;
    if (infoClass == FileLinkInformation && exists && !info.ReplaceIfExists) return STATUS_OBJECT_NAME_COLLISION;
    return IoGetRelatedDeviceObject(opened.File) == request.Device() ? STATUS_SUCCESS : STATUS_NOT_SAME_DEVICE;
}

} // namespace

bool NamesATarget(const FILE_RENAME_INFORMATION& info)
{
    return info.RootDirectory || (info.FileNameLength && info.FileName[0] == L'\\');
}

NTSTATUS OpenRenameTarget(const Request& request, const FILE_RENAME_INFORMATION& info, FILE_INFORMATION_CLASS infoClass,
                          PFILE_OBJECT* target)
{
    ACCESS_MASK access;
    NTSTATUS status = AccessToTarget(request.File(), infoClass, &access);
    if (!NT_SUCCESS(status)) return status;
    OpenedFile opened{};
    status = OpenTarget(request, info, access, &opened);
    if (!NT_SUCCESS(status)) return status;
    status = CheckTarget(request, info, infoClass, opened);
    if (NT_SUCCESS(status))
        *target = opened.File;
    else
        ObDereferenceObject(opened.File);
    return status;
}

} // namespace nthost::io
