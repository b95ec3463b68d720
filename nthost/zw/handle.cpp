// The services on handles of any type: closing and duplicating.
#include "ke/apc.h"
#include "ob/handle.h"
#include "ob/capture.h"

namespace nthost::zw {

namespace {

// A process named by handle, referenced while this lives; none for a null handle.
class ProcessReference {
public:
    ProcessReference() = default;
    ~ProcessReference()
    {
        if (process_) ObDereferenceObject(process_);
    }
    ProcessReference(const ProcessReference&) = delete;
    ProcessReference& operator=(const ProcessReference&) = delete;

    [[nodiscard]] NTSTATUS Open(HANDLE handle, KPROCESSOR_MODE mode)
    {
        return ob::ReferenceObjectByHandle(handle, PROCESS_DUP_HANDLE, PsProcessType, mode,
                                           reinterpret_cast<PVOID*>(&process_), nullptr);
    }
    PEPROCESS Get() const { return process_; }

private:
    PEPROCESS process_ = nullptr;
};

struct Duplicate {
    PEPROCESS Target; // null: nothing is made
    PHANDLE TargetHandle;
    ACCESS_MASK DesiredAccess;
    ULONG Attributes;
    ULONG Options;
};

// A duplicate can give up access, not gain it.
NTSTATUS AccessOf(const Duplicate& wanted, const ob::HandleEntry& source, ACCESS_MASK* granted)
{
    *granted = wanted.Options & DUPLICATE_SAME_ACCESS
                   ? source.Granted
                   : ob::MapAccess(wanted.DesiredAccess, ob::TypeOf(source.Body), source.Granted);
    return *granted & ~source.Granted ? STATUS_ACCESS_DENIED : STATUS_SUCCESS;
}

NTSTATUS MakeDuplicate(const ob::HandleEntry& source, const Duplicate& wanted, KPROCESSOR_MODE mode)
{
    ACCESS_MASK granted;
    if (const NTSTATUS status = AccessOf(wanted, source, &granted); !NT_SUCCESS(status)) return status;
    HANDLE handle;
    NTSTATUS status = ob::InsertHandle(source.Body, wanted.Target, granted, wanted.Attributes, &handle);
    if (!NT_SUCCESS(status) || !wanted.TargetHandle) return status;
    status = ob::WriteUser(wanted.TargetHandle, handle, mode);
    if (!NT_SUCCESS(status)) (void)ob::CloseHandle(wanted.Target, handle, KernelMode);
    return status;
}

NTSTATUS DuplicateFrom(PEPROCESS process, HANDLE handle, const Duplicate& wanted, KPROCESSOR_MODE mode)
{
    ob::HandleEntry source;
    NTSTATUS status = ob::ReferenceHandle(process, handle, mode, &source);
    if (!NT_SUCCESS(status)) return status;
    if (wanted.Target) status = MakeDuplicate(source, wanted, mode);
    ObDereferenceObject(source.Body);
    return status;
}

NTSTATUS DuplicateObject(KPROCESSOR_MODE mode, HANDLE sourceProcess, HANDLE sourceHandle, HANDLE targetProcess,
                         Duplicate wanted)
{
    if (wanted.TargetHandle)
        if (const NTSTATUS status = ob::ProbeUser(wanted.TargetHandle, mode); !NT_SUCCESS(status)) return status;
    if (!targetProcess && !(wanted.Options & DUPLICATE_CLOSE_SOURCE)) return STATUS_INVALID_PARAMETER;
    if (mode != KernelMode) wanted.Attributes &= ~OBJ_KERNEL_HANDLE;

    ProcessReference source, target;
    if (const NTSTATUS status = source.Open(sourceProcess, mode); !NT_SUCCESS(status)) return status;
    NTSTATUS status = targetProcess ? target.Open(targetProcess, mode) : STATUS_SUCCESS;
    wanted.Target = target.Get();
    if (NT_SUCCESS(status)) status = DuplicateFrom(source.Get(), sourceHandle, wanted, mode);
    // The source goes even if the duplicate could not be made.
    if (wanted.Options & DUPLICATE_CLOSE_SOURCE) (void)ob::CloseHandle(source.Get(), sourceHandle, mode);
    return status;
}

} // namespace

} // namespace nthost::zw

using namespace nthost;

NTSTATUS NTAPI NtClose(HANDLE Handle)
{
    return ke::LeaveService(ob::CloseHandle(PsGetCurrentProcess(), Handle, ExGetPreviousMode()));
}

NTSTATUS NTAPI ZwClose(HANDLE Handle) { return ob::CloseHandle(PsGetCurrentProcess(), Handle, KernelMode); }

NTSTATUS NTAPI NtDuplicateObject(HANDLE SourceProcessHandle, HANDLE SourceHandle, HANDLE TargetProcessHandle,
                                 PHANDLE TargetHandle, ACCESS_MASK DesiredAccess, ULONG HandleAttributes, ULONG Options)
{
    return ke::LeaveService(zw::DuplicateObject(ExGetPreviousMode(), SourceProcessHandle, SourceHandle,
                                                TargetProcessHandle,
                                                {nullptr, TargetHandle, DesiredAccess, HandleAttributes, Options}));
}

NTSTATUS NTAPI ZwDuplicateObject(HANDLE SourceProcessHandle, HANDLE SourceHandle, HANDLE TargetProcessHandle,
                                 PHANDLE TargetHandle, ACCESS_MASK DesiredAccess, ULONG HandleAttributes, ULONG Options)
{
    return zw::DuplicateObject(KernelMode, SourceProcessHandle, SourceHandle, TargetProcessHandle,
                               {nullptr, TargetHandle, DesiredAccess, HandleAttributes, Options});
}
