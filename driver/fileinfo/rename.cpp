// FileRenameInformation brings three things into agreement: the plugin's names, the name tree, and the object with its
// plugin handle. All checks come first; then a destination that is replaced goes; then the handle is closed, the plugin
// renames by path, and a new handle is opened; only then does the name tree move. There is no undo: after a failed
// rename a closed handle stays closed, and the object can only be cleaned up and closed.

#include "fileinfo/rename.h"

#include "create/create.h"
#include "fileinfo/fileinfo.h"
#include "frame/plugincall.h"
#include "frame/resource.h"
#include "objects/coherence.h"
#include "objects/fcb.h"

namespace {

constexpr char kName[] = "GvSetRenameInfo";

bool HasChildren(const Fcb* fcb)
{
    return static_cast<ULONG>(GvLoad(fcb->RefCount)) > static_cast<ULONG>(GvLoad(fcb->OpenCount));
}

// Section references keep file objects from closing; letting go of them may let the directory's last children go. The
// list's own reference is the one that a close nested in the purge counts on.
[[nodiscard]] NTSTATUS FlushAndPurgeAllFiles(IrpContext* context)
{
    Fcb* list = nullptr;
    GvFcbGetReferencedFcbList(context->Vcb->FcbTables, GvFile, &list);
    NTSTATUS status = STATUS_SUCCESS;
    while (Fcb* const fcb = GvFcbPopReferencedFcb(&list)) {
        if (NT_SUCCESS(status)) {
            GvHeldResource lock;
            status = lock.Exclusive(fcb->Header.Resource);
            if (NT_SUCCESS(status)) GvUtlFlushAndPurgeMm(fcb, nullptr, 0, MmFlush::Yes);
        }
        const NTSTATUS released = GvFcbReleaseFcb(context, fcb);
        if (!NT_SUCCESS(released)) GV_TRACE_FAILED_AS("GvCanSrcDirBeRenamed", "GvFcbReleaseFcb", released);
    }
    return status;
}

// The name tree holds full paths, so a directory can move only while nothing below it has a control block.
[[nodiscard]] NTSTATUS GvCanSrcDirBeRenamed(IrpContext* context, const Fcb* fcb)
{
    if (GvLoad(fcb->RefCount) == GvLoad(fcb->OpenCount)) {
        GV_TRACE(GvTraceFlow, "dir can be renamed, has no children open\n");
        return STATUS_SUCCESS;
    }
    GV_TRACE(GvTraceFlow, "src-FCB has children open underneath, attempting flush/purge\n");
    if (const NTSTATUS status = FlushAndPurgeAllFiles(context); !NT_SUCCESS(status)) return status;
    if (!HasChildren(fcb)) return STATUS_SUCCESS;
    GV_TRACE(GvTraceError,
             "ERR: flush/purge failed, there are either handles open, or files are mmap'd, denying rename\n");
    return STATUS_ACCESS_DENIED;
}

[[nodiscard]] bool GvAreSrcAndDestNamesEqual(PCUNICODE_STRING sourcePath, PCUNICODE_STRING destinationLeaf)
{
    USHORT separator;
    if (const NTSTATUS status = GvUtlUniStrRChr(sourcePath, L'\\', &separator); !NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvUtlUniStrRChr", status);
        return false;
    }
    const auto prefix = static_cast<USHORT>((separator + 1) * sizeof(WCHAR));
    if (prefix == sourcePath->Length) return false;
    const auto length = static_cast<USHORT>(sourcePath->Length - prefix);
    const UNICODE_STRING leaf = {length, length, sourcePath->Buffer + separator + 1};
    return RtlCompareUnicodeString(&leaf, destinationLeaf, TRUE) == 0;
}

// directory + separator, if it has none + leaf. Room for the separator is asked for only where one may be needed.
[[nodiscard]] NTSTATUS JoinPath(PCUNICODE_STRING directory, ULONG separatorRoom, PCUNICODE_STRING leaf, GvString* path)
{
    path->Reset(GvUtlAllocUnicodeString(PagedPool, directory->Length + leaf->Length + separatorRoom));
    if (!*path) {
        GV_TRACE_AS("GvGetDestPathForRename", GvTraceError, "out-of-mem 1\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    // There is room: the capacity was worked out from the same parts.
    RtlCopyUnicodeString(path->Get(), directory);
    if (!GvUtlEndsInBackslash(path->Get())) {
        [[maybe_unused]] const NTSTATUS status = RtlAppendUnicodeToString(path->Get(), L"\\");
    }
    [[maybe_unused]] const NTSTATUS status = RtlAppendUnicodeStringToString(path->Get(), leaf);
    return STATUS_SUCCESS;
}

[[nodiscard]] NTSTATUS GvGetDestPathForRename(IrpContext* context, PCUNICODE_STRING sourcePath, PFILE_OBJECT target,
                                              PCUNICODE_STRING leaf, GvString* path)
{
    if (target) {
        GvString directory;
        const NTSTATUS status = GvFcbGetName(context->Vcb->FcbTables, GvFcbOf(target), directory.Out());
        if (!NT_SUCCESS(status)) {
            GV_TRACE_FAILED("GvFcbGetName", status);
            return status;
        }
        return JoinPath(directory.Get(), sizeof(WCHAR), leaf, path);
    }
    USHORT separator;
    if (const NTSTATUS status = GvUtlUniStrRChr(sourcePath, L'\\', &separator); !NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvUtlUniStrRChr", status);
        return status;
    }
    const auto prefix = static_cast<USHORT>((separator + 1) * sizeof(WCHAR));
    const UNICODE_STRING directory = {prefix, prefix, sourcePath->Buffer};
    return JoinPath(&directory, 0, leaf, path);
}

// The new last component as the caller gave it; borrowed.
[[nodiscard]] NTSTATUS GivenLeaf(PIRP irp, UNICODE_STRING* leaf)
{
    const auto& parameters = IoGetCurrentIrpStackLocation(irp)->Parameters.SetFile;
    if (parameters.FileObject) {
        const UNICODE_STRING& name = parameters.FileObject->FileName;
        *leaf = {name.Length, name.Length, name.Buffer};
        return STATUS_SUCCESS;
    }
    auto* const info = static_cast<PFILE_RENAME_INFORMATION>(irp->AssociatedIrp.SystemBuffer);
    if (info->FileNameLength >= 0xffff) {
        GV_TRACE_AS(kName, GvTraceError, "ERR: file-name too long: %d\n", info->FileNameLength);
        return STATUS_INVALID_PARAMETER;
    }
    // The name must lie in the request's buffer, whoever filled it.
    const ULONG offset = FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName);
    if (parameters.Length < offset || info->FileNameLength > parameters.Length - offset) {
        return STATUS_INVALID_PARAMETER;
    }
    const auto length = static_cast<USHORT>(info->FileNameLength);
    *leaf = {length, length, info->FileName};
    return STATUS_SUCCESS;
}

struct Names {
    UNICODE_STRING Given;
    GvString FromPlugin;
    PCUNICODE_STRING Normalized; // the plugin's, or as given
    GvString SourcePath;
    GvRenameDestination Destination;
};

[[nodiscard]] NTSTATUS GetLeaf(IrpContext* context, Names* names)
{
    if (const NTSTATUS status = GivenLeaf(context->Irp, &names->Given); !NT_SUCCESS(status)) return status;
    const NTSTATUS status = GvPnGetNormalizedPathFromPlugin(context, &names->Given, names->FromPlugin.Out());
    if (!NT_SUCCESS(status) && status != STATUS_NOT_SUPPORTED) {
        GV_TRACE_FAILED_AS(kName, "GvPnGetNormalizedPathFromPlugin", status);
        return status;
    }
    names->Normalized = NT_SUCCESS(status) && names->FromPlugin ? names->FromPlugin.Get() : &names->Given;
    // Before anything is closed: the plugin could only refuse it, and every opener would lose the handle. A name with a
    // separator in it would stand in the tree for an object that it does not name.
    NTSTATUS checked = GvCheckLeaf(names->Normalized);
    if (NT_SUCCESS(checked) && names->Normalized != &names->Given) checked = GvCheckLeaf(&names->Given);
    if (!NT_SUCCESS(checked)) GV_TRACE_FAILED_AS(kName, "GvCheckLeaf", checked);
    return checked;
}

[[nodiscard]] NTSTATUS GetPaths(IrpContext* context, Fcb* fcb, Names* names)
{
    NTSTATUS status = GvFcbGetName(context->Vcb->FcbTables, fcb, names->SourcePath.Out());
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS(kName, "GvFcbGetName", status);
        return status;
    }
    GvRenameDestination& destination = names->Destination;
    const PCUNICODE_STRING source = names->SourcePath.Get();
    status = GvGetDestPathForRename(context, source, destination.Target, names->Normalized, &destination.Normalized);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_AS(kName, GvTraceError, "GvGetDestPathForRename() normalized: 0x%x\n", status);
        return status;
    }
    status = GvGetDestPathForRename(context, source, destination.Target, &names->Given, &destination.CasePreserved);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_AS(kName, GvTraceError, "GvGetDestPathForRename()case-preserved: 0x%x\n", status);
    }
    return status;
}

constexpr char kNotify[] = "GvNotifyPluginForRename";

[[nodiscard]] NTSTATUS ClosePluginFd(IrpContext* context, Fcb* fcb)
{
    const NTSTATUS status = GV_CALL_PLUGIN(context, fcb, Close, GvHandleOf(fcb));
    GvStore(fcb->PluginFdClosed, 1);
    GvStore(fcb->PluginFd, 0);
    if (!NT_SUCCESS(status)) GV_TRACE_AS(kNotify, GvTraceError, "plugin Close(): 0x%x\n", status);
    return status;
}

[[nodiscard]] NTSTATUS OpenWith(IrpContext* context, const Fcb* fcb, PCUNICODE_STRING path, PluginAccessMask access,
                                PluginFd* fd)
{
    *fd = 0;
    return fcb->FcbType == GvDirectory ? GV_CALL_PLUGIN(context, nullptr, OpenDir, path, access, fd)
                                       : GV_CALL_PLUGIN(context, nullptr, Open, path, access, fd);
}

// With all that the object's opens were ever allowed, so that the new handle serves each of them: also those that were
// there when it became read-only, if the plugin still gives that much.
[[nodiscard]] NTSTATUS OpenUnderNewName(IrpContext* context, Fcb* fcb, PCUNICODE_STRING path)
{
    if (fcb->FcbType != GvDirectory && fcb->FcbType != GvFile) {
        GV_TRACE_AS(kNotify, GvTraceError, "unknown FCB type: %d\n", fcb->FcbType);
        return STATUS_INVALID_PARAMETER;
    }
    PluginFd fd = 0;
    PluginAccessMask access = fcb->MaxAllowedAccess | fcb->PluginFdGranted;
    NTSTATUS status = OpenWith(context, fcb, path, access, &fd);
    if (!NT_SUCCESS(status) && access != fcb->MaxAllowedAccess) {
        access = fcb->MaxAllowedAccess;
        status = OpenWith(context, fcb, path, access, &fd);
    }
    if (!NT_SUCCESS(status)) {
        GV_TRACE_AS(kNotify, GvTraceError, "cumulative OpenDir/Open(type: %d): perm: 0x%x, 0x%x\n", fcb->FcbType,
                    fcb->MaxAllowedAccess, status);
        return status;
    }
    GvStore(fcb->PluginFd, fd);
    GvStore(fcb->PluginFdClosed, 0);
    fcb->PluginFdGranted = access;
    return status;
}

[[nodiscard]] NTSTATUS GvNotifyPluginForRename(IrpContext* context, Fcb* fcb, PCUNICODE_STRING sourcePath,
                                               PCUNICODE_STRING destination)
{
    GvHeldResource lock;
    NTSTATUS status = lock.Exclusive(fcb->Header.Resource);
    if (!NT_SUCCESS(status)) return status;
    if (!context->Vcb->PluginOps->Rename) {
        GV_TRACE(GvTraceError, "ERR: plugin does not support Rename()\n");
        return STATUS_NOT_SUPPORTED;
    }
    // From the close of the old handle to the new one.
    const GvHandleSwitch moving(fcb);
    status = ClosePluginFd(context, fcb);
    if (!NT_SUCCESS(status)) return status;
    status = GV_CALL_PLUGIN(context, nullptr, Rename, sourcePath, destination);
    if (!NT_SUCCESS(status)) {
        GV_TRACE(GvTraceError, "plugin Rename(): 0x%x\n", status);
        return status;
    }
    return OpenUnderNewName(context, fcb, destination);
}

ULONG NameBit(const Fcb* fcb)
{
    return fcb->FcbType == GvFile ? FILE_NOTIFY_CHANGE_FILE_NAME : FILE_NOTIFY_CHANGE_DIR_NAME;
}

void ReportOldName(Vcb* vcb, Fcb* fcb, const GvRenameDestination& destination)
{
    const bool gone = destination.CrossDirectory || destination.TargetReplaced;
    GvUtlReportChange(vcb, fcb, NameBit(fcb), gone ? FILE_ACTION_REMOVED : FILE_ACTION_RENAMED_OLD_NAME);
}

void ReportNewName(Vcb* vcb, Fcb* fcb, const GvRenameDestination& destination)
{
    constexpr ULONG kAllButNames = FILE_NOTIFY_CHANGE_ATTRIBUTES | FILE_NOTIFY_CHANGE_SIZE |
                                   FILE_NOTIFY_CHANGE_LAST_WRITE | FILE_NOTIFY_CHANGE_LAST_ACCESS |
                                   FILE_NOTIFY_CHANGE_CREATION | FILE_NOTIFY_CHANGE_EA;
    if (destination.TargetReplaced) {
        GvUtlReportChange(vcb, fcb, kAllButNames, FILE_ACTION_MODIFIED);
    } else {
        GvUtlReportChange(vcb, fcb, NameBit(fcb),
                          destination.CrossDirectory ? FILE_ACTION_ADDED : FILE_ACTION_RENAMED_NEW_NAME);
    }
}

[[nodiscard]] NTSTATUS GvChangeNameTreeForRename(IrpContext* context, Fcb* fcb, const GvRenameDestination& destination)
{
    GvHeldResource lock;
    NTSTATUS status = lock.Exclusive(fcb->Header.Resource);
    if (!NT_SUCCESS(status)) return status;
    ReportOldName(context->Vcb, fcb, destination);
    status = GvFcbMoveFcbForRename(context, fcb, destination.Target, destination.Normalized.Get());
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvFcbMoveFcb", status);
        return status;
    }
    ReportNewName(context->Vcb, fcb, destination);
    return status;
}

// The old directory has lost an entry, and one whose file was replaced has lost that: listings start over.
void CountLostEntries(const Fcb* fcb, const GvRenameDestination& destination)
{
    InterlockedIncrement(&fcb->ParentFcb->ChildDeleteCount);
    if (destination.TargetReplaced && destination.Target) {
        InterlockedIncrement(&GvFcbOf(destination.Target)->ChildDeleteCount);
    }
}

[[nodiscard]] NTSTATUS Move(IrpContext* context, Fcb* fcb, bool replaceIfExists, Names* names)
{
    GvRenameDestination& destination = names->Destination;
    NTSTATUS status = GvCheckRenameDestination(context, replaceIfExists, &destination);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS(kName, "GvCheckRenameTarget", status);
        return status;
    }
    if (destination.TargetReplaced) {
        status = GvDeleteRenameTarget(context, destination.Normalized.Get());
        if (!NT_SUCCESS(status)) {
            GV_TRACE_FAILED_AS(kName, "GvDeleteRenameTarget", status);
            return status;
        }
    }
    status = GvNotifyPluginForRename(context, fcb, names->SourcePath.Get(), destination.CasePreserved.Get());
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS(kName, "GvNotifyPluginForRename", status);
        return status;
    }
    CountLostEntries(fcb, destination);
    status = GvChangeNameTreeForRename(context, fcb, destination);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS(kName, "GvChangeNameTreeForRename", status);
    return status;
}

} // namespace

NTSTATUS GvSetRenameInfo(IrpContext* context, Fcb* fcb)
{
    GV_ASSERT_HELD_EXCLUSIVE(&context->Vcb->Resource);
    if (fcb->IsRootDir) {
        GV_TRACE(GvTraceError, "ERR: can't rename the root-dir\n");
        return STATUS_INVALID_PARAMETER;
    }
    if (fcb->FcbType == GvDirectory) {
        if (const NTSTATUS status = GvCanSrcDirBeRenamed(context, fcb); !NT_SUCCESS(status)) {
            GV_TRACE_FAILED("GvCanDirBeRenamed", status);
            return status;
        }
    }
    Names names = {};
    if (const NTSTATUS status = GetLeaf(context, &names); !NT_SUCCESS(status)) return status;
    const PFILE_OBJECT target = IoGetCurrentIrpStackLocation(context->Irp)->Parameters.SetFile.FileObject;
    names.Destination.Target = target;
    if (target && GvFcbOf(target) == fcb) {
        // As for any directory below it, which has kept it from moving.
        GV_TRACE(GvTraceError, "ERR: a directory can't become its own child\n");
        return STATUS_ACCESS_DENIED;
    }
    if (const NTSTATUS status = GetPaths(context, fcb, &names); !NT_SUCCESS(status)) return status;

    names.Destination.CrossDirectory = target && GvFcbOf(target) != fcb->ParentFcb;
    if (!names.Destination.CrossDirectory && GvAreSrcAndDestNamesEqual(names.SourcePath.Get(), names.Normalized)) {
        // The name tree compares without regard to case: the object keeps its key.
        GV_TRACE(GvTraceFlow, "rename is case-only, notifying plugin\n");
        const NTSTATUS status =
            GvNotifyPluginForRename(context, fcb, names.SourcePath.Get(), names.Destination.CasePreserved.Get());
        if (!NT_SUCCESS(status)) GV_TRACE_FAILED("GvNotifyPluginForRename", status);
        return status;
    }
    auto* const info = static_cast<PFILE_RENAME_INFORMATION>(context->Irp->AssociatedIrp.SystemBuffer);
    return Move(context, fcb, info->ReplaceIfExists != FALSE, &names);
}
