// From the name in the file object to the paths of an open: the plugin's normalisation, the legal characters, the
// refusal of dot components, the caller's spelling kept apart from the form that is matched. The related object is kept
// alive by its file object.

#include "create/create.h"

#include "plugin/operations.h"
#include "frame/resource.h"

namespace {

constexpr char kName[] = "GvResolveName"; // whose steps most routines below are

bool BeginsWithBackslash(PCUNICODE_STRING path) { return path->Length >= sizeof(WCHAR) && path->Buffer[0] == L'\\'; }

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
    if (!*path) return GV_REFUSE(STATUS_INSUFFICIENT_RESOURCES, "out-of-mem\n");
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
    if (!paths->FullPath) return GV_REFUSE_AS(kName, STATUS_INSUFFICIENT_RESOURCES, "out-of-mem 1\n");
    paths->WalkedPath.Reset(GvUtlAllocUnicodeString(PagedPool, capacity));
    if (!paths->WalkedPath) return GV_REFUSE_AS(kName, STATUS_INSUFFICIENT_RESOURCES, "out-of-mem 2\n");
    paths->RemainingPath.Reset(GvUtlAllocUnicodeString(PagedPool, capacity));
    if (!paths->RemainingPath) return GV_REFUSE_AS(kName, STATUS_INSUFFICIENT_RESOURCES, "out-of-mem 3\n");
    return STATUS_SUCCESS;
}

// An absolute name must begin with a backslash; a relative one must not, and brings the related object's name.
[[nodiscard]] NTSTATUS GetRelatedName(IrpContext* context, PFILE_OBJECT fileObject, PCUNICODE_STRING name,
                                      GvString* related)
{
    if (!fileObject->RelatedFileObject) {
        if (BeginsWithBackslash(name)) return STATUS_SUCCESS;
        return GV_REFUSE_AS(kName, STATUS_OBJECT_PATH_SYNTAX_BAD, "bad absolute-name: 0x%x\n",
                            STATUS_OBJECT_PATH_SYNTAX_BAD);
    }
    if (BeginsWithBackslash(name))
        return GV_REFUSE_AS(kName, STATUS_OBJECT_PATH_SYNTAX_BAD, "bad relative-name: 0x%x\n",
                            STATUS_OBJECT_PATH_SYNTAX_BAD);
    Fcb* const fcb = GvFcbOf(fileObject->RelatedFileObject);
    if (fcb->FcbType == GvVolume) {
        // The volume is on no tree: it has no name that anything could be relative to.
        return GV_REFUSE_AS(kName, STATUS_OBJECT_PATH_SYNTAX_BAD, "bad relative-name: 0x%x\n",
                            STATUS_OBJECT_PATH_SYNTAX_BAD);
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
    GV_TRY_TRACED_AS(kName, "GvEnsurePathCharsAreLegal", GvEnsurePathCharsAreLegal(name));
    GvString related;
    GV_TRY(GetRelatedName(context, fileObject, name, &related));

    const ULONG capacity = name->Length + (related ? related->Length + sizeof(WCHAR) : 0);
    GV_TRY(AllocatePaths(capacity, paths));
    FillPaths(related.Get(), name, paths);
    GV_TRY(RefuseDotComponents(paths->FullPath.Get()));
    GV_TRY_TRACED_AS(kName, "GvGetCasePreservedFullPath",
                     GvGetCasePreservedFullPath(fileObject, related.Get(), &paths->CasePreservedPath));
    StripTrailing(paths);
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS GvResolveName(IrpContext* context, PFILE_OBJECT fileObject, ResolvedPaths* paths)
{
    GV_ASSERT_HELD_EXCLUSIVE(&context->Vcb->Resource);
    GvString holder;
    PCUNICODE_STRING name = nullptr;
    GV_TRY_TRACED("GvPnGetNormalizedPathFromPlugin",
                  GvNormalizedOrGiven(context, &fileObject->FileName, &holder, &name));
    return BuildPaths(context, fileObject, name, paths);
}
