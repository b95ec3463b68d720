// The service that opens files: the caller's arguments in, a handle and a status block out.
#include <cstring>

#include <nthost/faults.h>

#include "io/ea_list.h"
#include "io/file.h"
#include "io/open.h"
#include "ob/service.h"
#include "ob/object.h"
#include "ob/capture.h"

namespace nthost::io {

namespace {

struct CreateArguments {
    KPROCESSOR_MODE Mode;
    PHANDLE Handle;
    POBJECT_ATTRIBUTES Attributes;
    PIO_STATUS_BLOCK StatusBlock;
    PLARGE_INTEGER AllocationSize;
    PVOID EaBuffer;
    ULONG EaLength;
};

[[nodiscard]] NTSTATUS CaptureEas(const CreateArguments& arguments, OpenParameters* open, CapturedList* eas)
{
    const NTSTATUS status = CaptureList(arguments.EaBuffer, arguments.EaLength, arguments.Mode, eas);
    if (!NT_SUCCESS(status) || !*eas) return status;
    open->EaBuffer = eas->get();
    open->EaLength = arguments.EaLength;
    ULONG errorOffset = 0;
    const NTSTATUS checked =
        IoCheckEaBufferValidity(static_cast<PFILE_FULL_EA_INFORMATION>(open->EaBuffer), open->EaLength, &errorOffset);
    return TellInconsistent(checked, errorOffset, arguments.StatusBlock, arguments.Mode);
}

[[nodiscard]] NTSTATUS ReadAllocationSize(const CreateArguments& arguments, LARGE_INTEGER* size)
{
    size->QuadPart = 0;
    return arguments.AllocationSize ? ob::ReadUser(arguments.AllocationSize, size, arguments.Mode) : STATUS_SUCCESS;
}

// Everything that the caller's addresses decide, before anything is opened.
[[nodiscard]] NTSTATUS ReadArguments(const CreateArguments& arguments, OpenParameters* open,
                                     ob::CapturedAttributes* attributes, CapturedList* eas)
{
    NTSTATUS status = ob::ProbeUser(arguments.Handle, arguments.Mode);
    if (NT_SUCCESS(status)) status = ob::ProbeUser(arguments.StatusBlock, arguments.Mode);
    if (NT_SUCCESS(status)) status = ReadAllocationSize(arguments, &open->AllocationSize);
    if (NT_SUCCESS(status)) status = CheckOpenParameters(*open);
    if (NT_SUCCESS(status)) status = CaptureEas(arguments, open, eas);
    if (NT_SUCCESS(status)) status = ob::CaptureObjectAttributes(arguments.Attributes, arguments.Mode, attributes);
    open->Name = attributes->Name.Get();
    open->Attributes = attributes->Attributes;
    return status;
}

NTSTATUS ReturnFile(const CreateArguments& arguments, ULONG attributes, const OpenedFile& opened)
{
    PFILE_OBJECT const file = opened.File;
    NTSTATUS status = ob::WriteUser(arguments.StatusBlock, opened.Result, arguments.Mode);
    if (NT_SUCCESS(status)) {
        // The file object must know of its handle before another thread can close it.
        SetFlag(file, FO_HANDLE_CREATED);
        status = ob::ReturnHandle(file, opened.Granted, attributes, arguments.Mode, arguments.Handle);
    }
    return status;
}

NTSTATUS OpenAndReturn(const CreateArguments& arguments, const OpenParameters& open)
{
    OpenedFile opened{};
    NTSTATUS status = OpenFile(open, &opened);
    if (NT_WARNING(status)) {
        const NTSTATUS written = ob::WriteUser(arguments.StatusBlock, opened.Result, arguments.Mode);
        return NT_SUCCESS(written) ? status : written;
    }
    if (NT_ERROR(status)) return status;
    const NTSTATUS returned = ReturnFile(arguments, open.Attributes, opened);
    ObDereferenceObject(opened.File);
    return NT_SUCCESS(returned) ? status : returned;
}

NTSTATUS Open(const CreateArguments& arguments, OpenParameters& open)
{
    ob::CapturedAttributes captured;
    CapturedList eas;
    NTSTATUS status = ReadArguments(arguments, &open, &captured, &eas);
    if (!NT_SUCCESS(status)) return status;
    status = ReferenceRelated(captured.RootDirectory, arguments.Mode, &open.Related);
    if (!NT_SUCCESS(status)) return status;
    status = OpenAndReturn(arguments, open);
    if (open.Related) ObDereferenceObject(open.Related);
    return status;
}

NTSTATUS CreateFile(KPROCESSOR_MODE mode, PHANDLE handle, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES attributes,
                    PIO_STATUS_BLOCK statusBlock, PLARGE_INTEGER allocationSize, ULONG fileAttributes,
                    ULONG shareAccess, ULONG disposition, ULONG options, PVOID eaBuffer, ULONG eaLength)
{
    if (mode == KernelMode && FaultInjected("ZwCreateFile")) return STATUS_INSUFFICIENT_RESOURCES;
    const CreateArguments arguments{mode, handle, attributes, statusBlock, allocationSize, eaBuffer, eaLength};
    OpenParameters open{};
    open.Mode = mode;
    open.DesiredAccess = desiredAccess;
    open.FileAttributes = fileAttributes;
    open.ShareAccess = shareAccess;
    open.Disposition = disposition;
    open.Options = options;
    return Open(arguments, open);
}

// A create that only opens.
NTSTATUS OpenExisting(KPROCESSOR_MODE mode, PHANDLE handle, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES attributes,
                      PIO_STATUS_BLOCK statusBlock, ULONG shareAccess, ULONG options)
{
    const CreateArguments arguments{mode, handle, attributes, statusBlock, nullptr, nullptr, 0};
    OpenParameters open{};
    open.Mode = mode;
    open.DesiredAccess = desiredAccess;
    open.ShareAccess = shareAccess;
    open.Disposition = FILE_OPEN;
    open.Options = options;
    return Open(arguments, open);
}

} // namespace

} // namespace nthost::io

NTHOST_SERVICE_PAIR(CreateFile, nthost::io::CreateFile,
                    (PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                     PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                     ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength),
                    FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, AllocationSize, FileAttributes,
                    ShareAccess, CreateDisposition, CreateOptions, EaBuffer, EaLength)
NTHOST_SERVICE_PAIR(OpenFile, nthost::io::OpenExisting,
                    (PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                     PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess, ULONG OpenOptions),
                    FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, ShareAccess, OpenOptions)
