// From the name in the file object to the paths of an open: the plugin's normalisation, the legal characters, the
// refusal of dot components, the caller's spelling kept apart from the form that is matched. The related object is kept
// alive by its file object.

#include "create/create.h"

#include "frame/plugincall.h"
#include "frame/resource.h"

namespace {

constexpr char kName[] = "GvResolveName"; // whose steps most routines below are

bool HasNonAscii(PCUNICODE_STRING path)
{
    for (ULONG i = 0; i < path->Length / sizeof(WCHAR); ++i)
        if (path->Buffer[i] >= 0x80) return true;
    return false;
}

bool BeginsWithBackslash(PCUNICODE_STRING path) { return path->Length >= sizeof(WCHAR) && path->Buffer[0] == L'\\'; }

[[nodiscard]] NTSTATUS GvEnsurePathCharsAreLegal(PCUNICODE_STRING path)
{
    for (ULONG i = 0; i < path->Length / sizeof(WCHAR); ++i) {
        const WCHAR character = path->Buffer[i];
        if (character >= 0x80 || character == L'\\') continue;
        if (FsRtlLegalAnsiCharacterArray[character] & FSRTL_NTFS_LEGAL) continue;
        GV_TRACE(GvTraceError, "FsRtlIsAnsiCharacterLegalNtfs(): failed, char: 0x%x\n", character);
        return STATUS_OBJECT_NAME_INVALID;
    }
    return STATUS_SUCCESS;
}

// The destination has room: its capacity was worked out from the same parts.
void Append(PUNICODE_STRING path, PCUNICODE_STRING tail)
{
    [[maybe_unused]] const NTSTATUS status = RtlAppendUnicodeStringToString(path, tail);
}

void AppendSeparator(PUNICODE_STRING path)
{
    if (GvUtlEndsInBackslash(path)) return;
    const UNICODE_STRING separator = GvLiteral(L"\\");
    Append(path, &separator);
}

[[nodiscard]] NTSTATUS GvGetCasePreservedFullPath(PFILE_OBJECT fileObject, PCUNICODE_STRING related, GvString* path)
{
    const ULONG relatedLength = related ? related->Length + sizeof(WCHAR) : 0;
    path->Reset(GvUtlAllocUnicodeString(PagedPool, fileObject->FileName.Length + relatedLength));
    if (!*path) {
        GV_TRACE(GvTraceError, "out-of-mem\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (related) {
        Append(path->Get(), related);
        AppendSeparator(path->Get());
    }
    Append(path->Get(), &fileObject->FileName);
    return STATUS_SUCCESS;
}

void GvStripTrailingBackslashes(PUNICODE_STRING path)
{
    while (GvUtlEndsInBackslash(path) && !GvUtlIsRootPath(path)) path->Length -= sizeof(WCHAR);
}

[[nodiscard]] NTSTATUS RefuseDotComponents(PCUNICODE_STRING path)
{
    bool found = false;
    NTSTATUS status = GvUtlDoesPathHaveComponent(path, L".", &found);
    if (!NT_SUCCESS(status) || found) {
        GV_TRACE_AS(kName, GvTraceError, "ERR: path contains '.', or 0x%x\n", status);
        return NT_SUCCESS(status) ? STATUS_OBJECT_PATH_SYNTAX_BAD : status;
    }
    status = GvUtlDoesPathHaveComponent(path, L"..", &found);
    if (!NT_SUCCESS(status) || found) {
        GV_TRACE_AS(kName, GvTraceError, "ERR: path contains '..', or 0x%x\n", status);
        return NT_SUCCESS(status) ? STATUS_OBJECT_PATH_SYNTAX_BAD : status;
    }
    return STATUS_SUCCESS;
}

[[nodiscard]] NTSTATUS AllocatePaths(ULONG capacity, ResolvedPaths* paths)
{
    paths->FullPath.Reset(GvUtlAllocUnicodeString(PagedPool, capacity));
    if (!paths->FullPath) {
        GV_TRACE_AS(kName, GvTraceError, "out-of-mem 1\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    paths->WalkedPath.Reset(GvUtlAllocUnicodeString(PagedPool, capacity));
    if (!paths->WalkedPath) {
        GV_TRACE_AS(kName, GvTraceError, "out-of-mem 2\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    paths->RemainingPath.Reset(GvUtlAllocUnicodeString(PagedPool, capacity));
    if (!paths->RemainingPath) {
        GV_TRACE_AS(kName, GvTraceError, "out-of-mem 3\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}

// An absolute name must begin with a backslash; a relative one must not, and brings the related object's name.
[[nodiscard]] NTSTATUS GetRelatedName(IrpContext* context, PFILE_OBJECT fileObject, PCUNICODE_STRING name,
                                      GvString* related)
{
    if (!fileObject->RelatedFileObject) {
        if (BeginsWithBackslash(name)) return STATUS_SUCCESS;
        GV_TRACE_AS(kName, GvTraceError, "bad absolute-name: 0x%x\n", STATUS_OBJECT_PATH_SYNTAX_BAD);
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    if (BeginsWithBackslash(name)) {
        GV_TRACE_AS(kName, GvTraceError, "bad relative-name: 0x%x\n", STATUS_OBJECT_PATH_SYNTAX_BAD);
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    Fcb* const fcb = GvFcbOf(fileObject->RelatedFileObject);
    if (fcb->FcbType == GvVolume) {
        // The volume is on no tree: it has no name that anything could be relative to.
        GV_TRACE_AS(kName, GvTraceError, "bad relative-name: 0x%x\n", STATUS_OBJECT_PATH_SYNTAX_BAD);
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    const NTSTATUS status = GvFcbGetName(context->Vcb->FcbTables, fcb, related->Out());
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS(kName, "GvFcbGetName", status);
    return status;
}

void FillPaths(PCUNICODE_STRING related, PCUNICODE_STRING name, ResolvedPaths* paths)
{
    if (related) {
        Append(paths->FullPath.Get(), related);
        AppendSeparator(paths->FullPath.Get());
        Append(paths->WalkedPath.Get(), related);
    }
    Append(paths->FullPath.Get(), name);
    Append(paths->RemainingPath.Get(), name);
}

void StripTrailing(ResolvedPaths* paths)
{
    if (GvUtlIsRootPath(paths->CasePreservedPath.Get())) return;
    paths->TrailingBackslash = GvUtlEndsInBackslash(paths->CasePreservedPath.Get());
    GvStripTrailingBackslashes(paths->CasePreservedPath.Get());
    GvStripTrailingBackslashes(paths->FullPath.Get());
    GvStripTrailingBackslashes(paths->RemainingPath.Get());
}

[[nodiscard]] NTSTATUS BuildPaths(IrpContext* context, PFILE_OBJECT fileObject, PCUNICODE_STRING name,
                                  ResolvedPaths* paths)
{
    NTSTATUS status = GvEnsurePathCharsAreLegal(name);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS(kName, "GvEnsurePathCharsAreLegal", status);
        return status;
    }
    GvString related;
    status = GetRelatedName(context, fileObject, name, &related);
    if (!NT_SUCCESS(status)) return status;

    const ULONG capacity = name->Length + (related ? related->Length + sizeof(WCHAR) : 0);
    status = AllocatePaths(capacity, paths);
    if (!NT_SUCCESS(status)) return status;
    FillPaths(related.Get(), name, paths);
    status = RefuseDotComponents(paths->FullPath.Get());
    if (!NT_SUCCESS(status)) return status;
    status = GvGetCasePreservedFullPath(fileObject, related.Get(), &paths->CasePreservedPath);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS(kName, "GvGetCasePreservedFullPath", status);
        return status;
    }
    StripTrailing(paths);
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS GvCheckLeaf(PCUNICODE_STRING leaf)
{
    const ULONG length = leaf->Length / sizeof(WCHAR);
    bool dots = length == 1 || length == 2;
    bool separator = length == 0 || leaf->Length % sizeof(WCHAR) != 0;
    for (ULONG i = 0; i < length; ++i) {
        dots &= leaf->Buffer[i] == L'.';
        separator |= leaf->Buffer[i] == L'\\';
    }
    if (dots) {
        GV_TRACE(GvTraceError, "ERR: the new name is '.' or '..'\n");
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    if (separator) {
        GV_TRACE(GvTraceError, "ERR: the new name is not one component\n");
        return STATUS_OBJECT_NAME_INVALID;
    }
    const NTSTATUS status = GvEnsurePathCharsAreLegal(leaf);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED("GvEnsurePathCharsAreLegal", status);
    return status;
}

NTSTATUS GvPnGetNormalizedPathFromPlugin(IrpContext* context, PCUNICODE_STRING path, PUNICODE_STRING* normalized)
{
    if (!HasNonAscii(path)) return STATUS_NOT_SUPPORTED;
    NTSTATUS status = GV_CALL_PLUGIN(context, nullptr, GetNormalizedPath, path, normalized);
    if (NT_SUCCESS(status) && *normalized) {
        status = GvCheckPluginName("GetNormalizedPath", (*normalized)->Buffer, (*normalized)->Length);
    }
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED("GetNormalizedPath", status);
    return status;
}

NTSTATUS GvResolveName(IrpContext* context, PFILE_OBJECT fileObject, ResolvedPaths* paths)
{
    GV_ASSERT_HELD_EXCLUSIVE(&context->Vcb->Resource);
    GvString normalized;
    bool useNormalized = false;
    if (fileObject->FileName.Length != 0) {
        const NTSTATUS status = GvPnGetNormalizedPathFromPlugin(context, &fileObject->FileName, normalized.Out());
        if (!NT_SUCCESS(status) && status != STATUS_NOT_SUPPORTED) {
            GV_TRACE_FAILED("GvPnGetNormalizedPathFromPlugin", status);
            return status;
        }
        useNormalized = NT_SUCCESS(status) && normalized;
    }
    return BuildPaths(context, fileObject, useNormalized ? normalized.Get() : &fileObject->FileName, paths);
}
