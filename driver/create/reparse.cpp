// Redirection at a symbolic link. The driver does not walk through it: the plugin names the target, the file object
// gets a new name that begins with the volume's own link name, and the I/O manager starts the open over from the top.
// Nobody counts links here; the I/O manager bounds them.

#include "create/create.h"

#include "frame/driver.h"
#include "frame/plugincall.h"

namespace {

constexpr char kName[] = "GvHandleReparsePoint"; // whose steps the routines below are

// A link as the last component is followed by a plain open only, so that a link itself is never deleted, overwritten or
// renamed over. In the middle of a path the open at the end of the new path is what counts.
[[nodiscard]] NTSTATUS CheckPlainOpen(const CreateParameters& parameters, PCUNICODE_STRING remaining)
{
    if (remaining->Length != 0) return STATUS_SUCCESS;
    if (!(parameters.DesiredAccess & DELETE) && parameters.Disposition == FILE_OPEN && !parameters.DeleteOnClose &&
        !parameters.OpenTargetDirectory) {
        return STATUS_SUCCESS;
    }
    GV_TRACE_AS(kName, GvTraceError,
                "access-denied via symlink path, access: 0x%x, disp: %d, del-on-close: %d, open-target-dir: %d, err: "
                "0x%x\n",
                parameters.DesiredAccess, parameters.Disposition, static_cast<ULONG>(parameters.DeleteOnClose),
                static_cast<ULONG>(parameters.OpenTargetDirectory), STATUS_ACCESS_DENIED);
    return STATUS_ACCESS_DENIED;
}

[[nodiscard]] NTSTATUS ReadTarget(IrpContext* context, PCUNICODE_STRING link, GvString* target)
{
    GvString unread; // handed over as well, and freed with the target
    const NTSTATUS status = GV_CALL_PLUGIN(context, nullptr, ReadLink, link, target->Out(), unread.Out());
    if (!NT_SUCCESS(status)) {
        GV_TRACE_AS(kName, GvTraceError, "plugin->ReadLink(): 0x%x\n", status);
        return status;
    }
    if (*target) {
        const NTSTATUS checked = GvCheckPluginName("ReadLink", (*target)->Buffer, (*target)->Length);
        if (!NT_SUCCESS(checked)) return checked;
    }
    if (!*target || (*target)->Length < sizeof(WCHAR) || (*target)->Buffer[0] != L'\\') {
        GV_TRACE_AS(kName, GvTraceError, "ERR: 'resolved target path' not found\n");
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    return STATUS_SUCCESS;
}

// The volume's link name, the target, and what the caller's name had after the link.
[[nodiscard]] NTSTATUS Compose(PCUNICODE_STRING volume, PCUNICODE_STRING target, PCUNICODE_STRING remaining,
                               GvString* name)
{
    name->Reset(GvUtlAllocUnicodeString(PagedPool, static_cast<ULONG>(volume->Length) + remaining->Length +
                                                       target->Length + sizeof(WCHAR)));
    if (!*name) {
        GV_TRACE_AS(kName, GvTraceError, "GvUtlAllocUnicodeString() failed\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    // There is room: the capacity was worked out from the same parts.
    RtlCopyUnicodeString(name->Get(), volume);
    [[maybe_unused]] NTSTATUS status = RtlAppendUnicodeStringToString(name->Get(), target);
    if (remaining->Length == 0) return STATUS_SUCCESS;
    if (!GvUtlEndsInBackslash(name->Get())) status = RtlAppendUnicodeToString(name->Get(), L"\\");
    status = RtlAppendUnicodeStringToString(name->Get(), remaining);
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS GvHandleReparsePoint(IrpContext* context, const CreateParameters& parameters, const ResolvedPaths& paths)
{
    const PCUNICODE_STRING remaining = paths.RemainingPath.Get();
    if (const NTSTATUS status = CheckPlainOpen(parameters, remaining); !NT_SUCCESS(status)) return status;
    GvString target;
    if (const NTSTATUS status = ReadTarget(context, paths.WalkedPath.Get(), &target); !NT_SUCCESS(status)) {
        return status;
    }
    GvString name;
    const NTSTATUS composed = Compose(context->Vcb->SymLinkName, target.Get(), remaining, &name);
    if (!NT_SUCCESS(composed)) return composed;
    const NTSTATUS status = GvIoReplaceFileObjectName(parameters.FileObject, name->Buffer, name->Length);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("IoReplaceFileObjectName", status);
        return status;
    }
    return STATUS_REPARSE;
}
