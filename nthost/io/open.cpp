// The road of an open: name to device, file object, create request, answer. No lock is held while the driver works; the
// device is counted as open before it sees the request.
#include "io/open.h"

#include <atomic>
#include <cstring>
#include <string>

#include <nthost/host.h>

#include "io/device.h"
#include "io/device_security.h"
#include "io/file.h"
#include "io/finish.h"
#include "io/request.h"
#include "ke/thread.h"
#include "ob/handle.h"
#include "ob/object.h"

namespace nthost::io {

namespace {

constexpr unsigned MaximumReparses = 32;
std::atomic<unsigned> g_caseSensitive; // how many CaseSensitiveNames live

bool IsCaseSensitive(const OpenParameters& open)
{
    return !(open.Attributes & OBJ_CASE_INSENSITIVE) && g_caseSensitive.load(std::memory_order_relaxed);
}

constexpr ULONG HasTraversePrivilege = 1; // in ACCESS_STATE.Flags: directories on the way are not checked

ACCESS_STATE NewAccessState(ACCESS_MASK desired)
{
    ACCESS_STATE state{};
    state.Flags = HasTraversePrivilege;
    RtlMapGenericMask(&desired, &FileMapping);
    state.OriginalDesiredAccess = state.RemainingDesiredAccess = desired;
    state.SubjectSecurityContext.PrimaryToken = ke::CurrentThread()->ActsFor->Token;
    return state;
}

ACCESS_MASK GrantedBy(const ACCESS_STATE& state)
{
    return (state.PreviouslyGrantedAccess | state.RemainingDesiredAccess) & FileType.ValidAccess;
}

// Where a name leads: a device, counted as open, and what it is to open there.
struct Target {
    PDEVICE_OBJECT Device;
    const WCHAR* Path;
    USHORT Length;
};

NTSTATUS TargetOfRelated(const OpenParameters& open, Target* target)
{
    target->Device = open.Related->DeviceObject;
    target->Path = open.Name->Buffer;
    target->Length = open.Name->Length;
    return CountOpen(target->Device, true);
}

NTSTATUS TargetOfPath(PCUNICODE_STRING name, std::u16string* path, Target* target)
{
    if (name->Length == 0) return STATUS_OBJECT_PATH_SYNTAX_BAD;
    void* object;
    NTSTATUS status = ob::LookupPath(name, &object, path);
    if (!NT_SUCCESS(status)) return status;
    if (path->size() > MAXUSHORT / sizeof(WCHAR)) { // links can make a name longer than it came
        ObDereferenceObject(object);
        return STATUS_NAME_TOO_LONG;
    }
    target->Device = static_cast<PDEVICE_OBJECT>(object);
    target->Path = reinterpret_cast<const WCHAR*>(path->data());
    target->Length = static_cast<USHORT>(path->size() * sizeof(WCHAR));
    status = ob::TypeOf(object) == &DeviceType ? CountOpen(target->Device, false) : STATUS_OBJECT_TYPE_MISMATCH;
    ObDereferenceObject(object); // the open count keeps the device
    return status;
}

// The file object takes over the target's open count, whether it comes to be or not.
PFILE_OBJECT NewFileFor(const OpenParameters& open, const Target& target)
{
    PFILE_OBJECT const file = NewFileObject(target.Device, open.Options);
    if (!file) {
        UncountOpen(target.Device);
        return nullptr;
    }
    if (IsCaseSensitive(open)) SetFlag(file, FO_OPENED_CASE_SENSITIVE);
    if (SetFileName(file, target.Path, target.Length)) return file;
    ObDereferenceObject(file);
    return nullptr;
}

UCHAR LocationFlagsOf(const OpenParameters& open)
{
    UCHAR flags = open.LocationFlags;
    if (IsCaseSensitive(open)) flags |= SL_CASE_SENSITIVE;
    if (open.Attributes & OBJ_FORCE_ACCESS_CHECK) flags |= SL_FORCE_ACCESS_CHECK;
    return flags;
}

void FillCreate(PIRP irp, const OpenParameters& open, PIO_SECURITY_CONTEXT security)
{
    irp->RequestorMode = open.Mode;
    irp->Overlay.AllocationSize = open.AllocationSize;
    irp->AssociatedIrp.SystemBuffer = open.EaBuffer;
    PIO_STACK_LOCATION const location = IoGetNextIrpStackLocation(irp);
    location->Flags = LocationFlagsOf(open);
    auto& create = location->Parameters.Create;
    create.SecurityContext = security;
    create.Options = open.Disposition << 24 | open.Options;
    create.FileAttributes = static_cast<USHORT>(open.FileAttributes);
    create.ShareAccess = static_cast<USHORT>(open.ShareAccess);
    create.EaLength = open.EaLength;
}

NTSTATUS SendCreate(const OpenParameters& open, PFILE_OBJECT file, ACCESS_STATE* access, IO_STATUS_BLOCK* result)
{
    PDEVICE_OBJECT const device = IoGetRelatedDeviceObject(file);
    IrpRecord* const record =
        NewFileIrp(file, device, IRP_MJ_CREATE, IRP_CREATE_OPERATION | IRP_SYNCHRONOUS_API | IRP_DEFER_IO_COMPLETION);
    if (!record) return STATUS_INSUFFICIENT_RESOURCES;
    IO_SECURITY_CONTEXT security = {nullptr, access, access->OriginalDesiredAccess, open.Options};
    FillCreate(&record->Irp, open, &security);
    file->RelatedFileObject = open.Related;
    const NTSTATUS status = SendRequest(device, record, result);
    file->RelatedFileObject = nullptr; // it is the caller's, and means something during the create only
    return status;
}

// What the device's descriptor says. The rights on a file are the file system's to grant, those on the device are
// granted here.
NTSTATUS CheckTarget(const OpenParameters& open, const Target& target, ACCESS_STATE* access)
{
    const bool isOfDevice = target.Length == 0 && !open.Related;
    const bool isChecked = open.Mode != KernelMode || (open.Attributes & OBJ_FORCE_ACCESS_CHECK);
    return CheckDeviceOpen(target.Device, {isOfDevice, isChecked, access});
}

NTSTATUS Create(const OpenParameters& open, const Target& target, OpenedFile* opened)
{
    ACCESS_STATE access = NewAccessState(open.DesiredAccess);
    if (const NTSTATUS checked = CheckTarget(open, target, &access); !NT_SUCCESS(checked)) {
        UncountOpen(target.Device);
        return checked;
    }
    PFILE_OBJECT const file = NewFileFor(open, target);
    if (!file) return STATUS_INSUFFICIENT_RESOURCES;
    const NTSTATUS status = SendCreate(open, file, &access, &opened->Result);
    if (!NT_SUCCESS(status)) {
        ObDereferenceObject(file);
        return status;
    }
    if (status != STATUS_REPARSE) {
        SetFlag(file, FO_FILE_OPEN);
        KeSetEvent(&file->Event, IO_NO_INCREMENT, FALSE); // nothing is out on it
    }
    opened->File = file;
    opened->Granted = GrantedBy(access);
    return status;
}

// One pass from a name to a file system's answer.
NTSTATUS OpenOnce(const OpenParameters& open, OpenedFile* opened)
{
    Target target;
    std::u16string path;
    const NTSTATUS status = open.Related ? TargetOfRelated(open, &target) : TargetOfPath(open.Name, &path, &target);
    return NT_SUCCESS(status) ? Create(open, target, opened) : status;
}

} // namespace

NTSTATUS ReferenceRelated(HANDLE root, KPROCESSOR_MODE mode, PFILE_OBJECT* related)
{
    *related = nullptr;
    if (!root) return STATUS_SUCCESS;
    void* object;
    const NTSTATUS status = ob::ReferenceObjectByHandle(root, 0, IoFileObjectType, mode, &object, nullptr);
    if (NT_SUCCESS(status)) *related = static_cast<PFILE_OBJECT>(object);
    return status;
}

NTSTATUS OpenFile(const OpenParameters& open, OpenedFile* opened)
{
    NTSTATUS status = OpenOnce(open, opened);
    for (unsigned reparses = 0; status == STATUS_REPARSE; ++reparses) {
        PFILE_OBJECT const redirected = opened->File;
        if (opened->Result.Information != IO_REPARSE)
            status = STATUS_IO_REPARSE_TAG_NOT_HANDLED;
        else if (reparses == MaximumReparses)
            status = STATUS_OBJECT_NAME_INVALID;
        else {
            // The new name stands in the file object that did not come to be, and is a full path.
            OpenParameters again = open;
            again.Name = &redirected->FileName;
            again.Related = nullptr;
            status = OpenOnce(again, opened);
        }
        ObDereferenceObject(redirected);
    }
    return status;
}

} // namespace nthost::io

nthost::CaseSensitiveNames::CaseSensitiveNames() { ++io::g_caseSensitive; }

nthost::CaseSensitiveNames::~CaseSensitiveNames() { --io::g_caseSensitive; }
