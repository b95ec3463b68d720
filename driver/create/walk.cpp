// The path walk: component by component from the root or the related directory, filling the name tree. The tree is
// asked first at every level, so a live directory costs no plugin call. The walker holds one reference on the current
// object, two while it steps; a walk that fails gives up its last one, and the release takes the unused chain down
// again.

#include "create/create.h"

#include "frame/plugincall.h"
#include "frame/resource.h"

NTSTATUS GvPerformLookupOnPlugin(IrpContext* context, PCUNICODE_STRING path, GvBlock<PluginFileInfo>* info,
                                 PluginAccessMask* maxAccess)
{
    PluginAccessMask access = 0;
    const NTSTATUS status = GV_CALL_PLUGIN(context, nullptr, Lookup, path, info->Out(), &access);
    if (!NT_SUCCESS(status)) {
        GV_TRACE(GvTraceError, "plugin->Lookup() failed: 0x%x\n", status);
        return status;
    }
    if (!*info) {
        GV_TRACE(GvTraceError, "plugin->Lookup() gave no record\n");
        return STATUS_UNSUCCESSFUL;
    }
    const bool isDirectory = ((*info)->FileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    *maxAccess = access & (isDirectory ? GVND_ACCESS_ALL & ~GVND_ACCESS_EXECUTE : GVND_ACCESS_ALL);
    return status;
}

NTSTATUS GvOpenFileFromPlugin(IrpContext* context, PCUNICODE_STRING path, PluginAccessMask access, PluginFd* fd)
{
    const NTSTATUS status = GV_CALL_PLUGIN(context, nullptr, Open, path, access, fd);
    if (!NT_SUCCESS(status)) GV_TRACE(GvTraceError, "plugin->Open() failed: 0x%x\n", status);
    return status;
}

NTSTATUS GvOpenDirFromPlugin(IrpContext* context, PCUNICODE_STRING path, PluginAccessMask access, PluginFd* fd)
{
    const NTSTATUS status = GV_CALL_PLUGIN(context, nullptr, OpenDir, path, access, fd);
    if (!NT_SUCCESS(status)) GV_TRACE(GvTraceError, "plugin->OpenDir() failed: 0x%x\n", status);
    return status;
}

NTSTATUS GvOpenFromPlugin(const char* function, IrpContext* context, ULONG type, PCUNICODE_STRING path,
                          PluginAccessMask access, PluginFd* fd)
{
    if (type == GvFile) {
        const NTSTATUS status = GvOpenFileFromPlugin(context, path, access, fd);
        if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS(function, "GvOpenFileFromPlugin", status);
        return status;
    }
    const NTSTATUS status = GvOpenDirFromPlugin(context, path, access, fd);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS(function, "GvOpenDirFromPlugin", status);
    return status;
}

namespace {

constexpr char kGetOrAlloc[] = "GvGetOrAllocFcbForExistingFile";

// The least that the object can be opened with; writing comes by a re-open when somebody asks for it.
PluginAccessMask FirstAccess(ULONG type, PluginAccessMask maxAccess)
{
    const PluginAccessMask least =
        maxAccess & (type == GvFile ? GVND_ACCESS_READ | GVND_ACCESS_EXECUTE : GVND_ACCESS_READ);
    if (least) return least;
    GV_TRACE_AS(kGetOrAlloc, GvTraceNotable, "reverting PluginFdCurrentAccess to MaxAllowedAccess: 0x%x\n", maxAccess);
    return maxAccess;
}

// The actual type, unless the caller demands another. A reparse point gets no control block and no handle.
[[nodiscard]] NTSTATUS TypeOf(const PluginFileInfo& info, ULONG requestedType, ULONG* type)
{
    if (info.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) {
        GV_TRACE_AS(kGetOrAlloc, GvTraceNotable, "path is a reparse point\n");
        return STATUS_REPARSE;
    }
    *type = info.FileAttributes & FILE_ATTRIBUTE_DIRECTORY ? GvDirectory : GvFile;
    if (requestedType == GvAnyType || requestedType == *type) return STATUS_SUCCESS;
    GV_TRACE_AS(kGetOrAlloc, GvTraceError, "ERR: requested file-type %d != lookup file-type: %d\n", requestedType,
                *type);
    return STATUS_OBJECT_PATH_SYNTAX_BAD;
}

[[nodiscard]] NTSTATUS OpenAndEnter(IrpContext* context, PCUNICODE_STRING path, GvFcbInitialState state, Fcb** fcb)
{
    NTSTATUS status =
        GvOpenFromPlugin(kGetOrAlloc, context, state.Type, path, state.PluginFdCurrentAccess, &state.PluginFd);
    if (!NT_SUCCESS(status)) return status; // whatever a failed open has written is no handle
    status = GvFcbCreateNewFcb(context->Vcb->FcbTables, path, state, fcb);
    if (NT_SUCCESS(status)) return status;
    GV_TRACE_FAILED_AS(kGetOrAlloc, "GvFcbCreateNewFcb", status);
    if (state.PluginFd) {
        const NTSTATUS closed = GV_CALL_PLUGIN(context, nullptr, Close, GvBareHandle(state.PluginFd));
        if (!NT_SUCCESS(closed)) GV_TRACE_FAILED_AS(kGetOrAlloc, "Close", closed);
    }
    return status;
}

// One reference for the caller. parent is null for the root. STATUS_REPARSE at a reparse point.
[[nodiscard]] NTSTATUS GvGetOrAllocFcbForExistingFile(IrpContext* context, PCUNICODE_STRING path, ULONG requestedType,
                                                      Fcb* parent, Fcb** fcb)
{
    *fcb = GvFcbGetExistingFcb(context->Vcb->FcbTables, path);
    if (*fcb) return STATUS_SUCCESS;

    GvBlock<PluginFileInfo> info;
    PluginAccessMask maxAccess;
    NTSTATUS status = GvPerformLookupOnPlugin(context, path, &info, &maxAccess);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvPerformLookupOnPlugin", status);
        return status;
    }
    ULONG type;
    status = TypeOf(*info, requestedType, &type);
    if (status != STATUS_SUCCESS) return status;
    const GvFcbInitialState state = {
        .Type = type,
        .MaxAllowedAccess = maxAccess,
        .PluginFdCurrentAccess = FirstAccess(type, maxAccess),
        .FileSize = info->EndOfFile,
        .PluginFd = 0,
        .Parent = parent,
    };
    return OpenAndEnter(context, path, state, fcb);
}

// The next component, moved from RemainingPath to the end of WalkedPath; false when none is left.
bool TakeComponent(ResolvedPaths* paths)
{
    UNICODE_STRING component = {};
    UNICODE_STRING rest = {};
    FsRtlDissectName(*paths->RemainingPath, &component, &rest);
    // Both point into the text of RemainingPath, which stays where it is.
    const PUNICODE_STRING remaining = paths->RemainingPath.Get();
    remaining->Buffer = rest.Length ? rest.Buffer : remaining->Buffer;
    remaining->MaximumLength = rest.MaximumLength;
    remaining->Length = rest.Length;
    if (component.Length == 0) return false;

    const PUNICODE_STRING walked = paths->WalkedPath.Get();
    if (!GvUtlEndsInBackslash(walked)) {
        [[maybe_unused]] const NTSTATUS status = RtlAppendUnicodeToString(walked, L"\\");
    }
    [[maybe_unused]] const NTSTATUS status = RtlAppendUnicodeStringToString(walked, &component);
    return true;
}

[[nodiscard]] NTSTATUS StartOfWalk(IrpContext* context, PFILE_OBJECT fileObject, ResolvedPaths* paths,
                                   GvFcbReference* start)
{
    if (fileObject->RelatedFileObject) {
        Fcb* const related = GvFcbOf(fileObject->RelatedFileObject);
        GvFcbAddReference(related);
        start->Reset(related);
        return STATUS_SUCCESS;
    }
    [[maybe_unused]] const NTSTATUS appended = RtlAppendUnicodeToString(paths->WalkedPath.Get(), L"\\");
    Fcb* root = nullptr;
    const NTSTATUS status =
        GvGetOrAllocFcbForExistingFile(context, paths->WalkedPath.Get(), GvDirectory, nullptr, &root);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS("GvFullyOpenPath", "GvGetOrAllocFcbForExistingFile", status);
    start->Reset(root);
    return status;
}

// The step that failed: a missing last component leaves the decision to the disposition.
[[nodiscard]] NTSTATUS EndOfFailedWalk(NTSTATUS status, PCUNICODE_STRING remaining, GvFcbReference* parent,
                                       WalkResult* result)
{
    if (status == STATUS_REPARSE) return status;
    if (NT_SUCCESS(status)) {
        GV_TRACE_AS("GvFullyOpenPath", GvTraceError, "unanticipated success code: 0x%x\n", status);
        return STATUS_UNSUCCESSFUL;
    }
    GV_TRACE_FAILED_AS("GvFullyOpenPath", "GvGetOrAllocFcbForExistingFile", status);
    if (remaining->Length != 0) {
        return status == STATUS_OBJECT_NAME_NOT_FOUND ? STATUS_OBJECT_PATH_NOT_FOUND : status;
    }
    result->LookupStatus = status;
    result->Parent = parent->Release();
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS GvFullyOpenPath(IrpContext* context, PFILE_OBJECT fileObject, ResolvedPaths* paths, WalkResult* result)
{
    GV_ASSERT_HELD_EXCLUSIVE(&context->Vcb->Resource);
    GvFcbReference current(context);
    NTSTATUS status = StartOfWalk(context, fileObject, paths, &current);
    if (status != STATUS_SUCCESS) return status;

    while (TakeComponent(paths)) {
        const ULONG demanded = paths->RemainingPath->Length != 0 ? GvDirectory : GvAnyType;
        Fcb* next = nullptr;
        status = GvGetOrAllocFcbForExistingFile(context, paths->WalkedPath.Get(), demanded, current.Get(), &next);
        if (status != STATUS_SUCCESS) return EndOfFailedWalk(status, paths->RemainingPath.Get(), &current, result);
        current.Reset(next);
    }
    result->Object = current.Release();
    return STATUS_SUCCESS;
}
