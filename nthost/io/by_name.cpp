// Services that take a name instead of a handle: open, do one thing, and close, without a handle in between.
#include "io/finish.h"
#include "io/open.h"
#include "io/request.h"
#include "ob/service.h"
#include "ob/capture.h"

namespace nthost::io {

namespace {

// What the open asks for stands in *open; STATUS_REPARSE is followed. On success *file is referenced.
[[nodiscard]] NTSTATUS OpenByName(KPROCESSOR_MODE mode, POBJECT_ATTRIBUTES attributes, OpenParameters* open,
                                  PFILE_OBJECT* file)
{
    ob::CapturedAttributes captured;
    NTSTATUS status = ob::CaptureObjectAttributes(attributes, mode, &captured);
    if (!NT_SUCCESS(status)) return status;
    open->Mode = mode;
    open->ShareAccess = FILE_SHARE_VALID_FLAGS;
    open->Disposition = FILE_OPEN;
    open->Name = captured.Name.Get();
    open->Attributes = captured.Attributes;
    status = ReferenceRelated(captured.RootDirectory, mode, &open->Related);
    if (!NT_SUCCESS(status)) return status;
    OpenedFile opened{};
    status = OpenFile(*open, &opened);
    if (open->Related) ObDereferenceObject(open->Related);
    if (NT_SUCCESS(status)) *file = opened.File;
    return status;
}

NTSTATUS DeleteByName(KPROCESSOR_MODE mode, POBJECT_ATTRIBUTES attributes)
{
    OpenParameters open{};
    open.DesiredAccess = DELETE;
    open.Options = FILE_DELETE_ON_CLOSE;
    PFILE_OBJECT file;
    const NTSTATUS status = OpenByName(mode, attributes, &open, &file);
    if (NT_SUCCESS(status)) ObDereferenceObject(file); // which sends cleanup and close
    return status;
}

[[nodiscard]] NTSTATUS AskDriver(PFILE_OBJECT file, FILE_INFORMATION_CLASS kind, void* buffer, ULONG length)
{
    PDEVICE_OBJECT const device = IoGetRelatedDeviceObject(file);
    IrpRecord* const record = NewFileIrp(file, device, IRP_MJ_QUERY_INFORMATION, IRP_SYNCHRONOUS_API);
    if (!record) return STATUS_INSUFFICIENT_RESOURCES;
    record->Irp.AssociatedIrp.SystemBuffer = buffer;
    auto& parameters = IoGetNextIrpStackLocation(&record->Irp)->Parameters.QueryFile;
    parameters.Length = length;
    parameters.FileInformationClass = kind;
    return SendRequest(device, record);
}

template <typename Info>
NTSTATUS QueryByName(KPROCESSOR_MODE mode, POBJECT_ATTRIBUTES attributes, Info* to, FILE_INFORMATION_CLASS kind)
{
    NTSTATUS status = ob::ProbeUser(to, mode);
    if (!NT_SUCCESS(status)) return status;
    OpenParameters open{};
    open.DesiredAccess = FILE_READ_ATTRIBUTES;
    open.Options = FILE_OPEN_REPARSE_POINT;
    PFILE_OBJECT file;
    status = OpenByName(mode, attributes, &open, &file);
    if (!NT_SUCCESS(status)) return status;
    Info info{};
    status = AskDriver(file, kind, &info, sizeof info);
    ObDereferenceObject(file);
    return NT_SUCCESS(status) ? ob::WriteUser(to, info, mode) : status;
}

NTSTATUS QueryBasic(KPROCESSOR_MODE mode, POBJECT_ATTRIBUTES attributes, PFILE_BASIC_INFORMATION to)
{
    return QueryByName(mode, attributes, to, FileBasicInformation);
}

NTSTATUS QueryNetwork(KPROCESSOR_MODE mode, POBJECT_ATTRIBUTES attributes, PFILE_NETWORK_OPEN_INFORMATION to)
{
    return QueryByName(mode, attributes, to, FileNetworkOpenInformation);
}

} // namespace

} // namespace nthost::io

NTHOST_SERVICE_PAIR(DeleteFile, nthost::io::DeleteByName, (POBJECT_ATTRIBUTES ObjectAttributes), ObjectAttributes)
NTHOST_SERVICE_PAIR(QueryAttributesFile, nthost::io::QueryBasic,
                    (POBJECT_ATTRIBUTES ObjectAttributes, PFILE_BASIC_INFORMATION FileInformation), ObjectAttributes,
                    FileInformation)
NTHOST_SERVICE_PAIR(QueryFullAttributesFile, nthost::io::QueryNetwork,
                    (POBJECT_ATTRIBUTES ObjectAttributes, PFILE_NETWORK_OPEN_INFORMATION FileInformation),
                    ObjectAttributes, FileInformation)
