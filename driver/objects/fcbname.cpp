// The names of control blocks: reading one, moving one, and the deletion key, which is the full path with the block's
// address behind it, so that any number of deleted objects of one name can wait for their last close.

#include "objects/fcb.h"

#include "frame/resource.h"
#include "frame/trace.h"
#include "objects/tree.h"
#include "objects/util.h"

NTSTATUS GvFcbGetName(FcbTables* tables, Fcb* fcb, PUNICODE_STRING* name)
{
    GvString key;
    const NTSTATUS status = GvLoad(fcb->Deleted) ? STATUS_INVALID_PARAMETER
                                                 : GvTreeGetEntryKey(tables->NameTree, &fcb->TreeEntry, key.Out());
    // Behind the copy: what a nested query has copied may have become a deletion key meanwhile, which is no name.
    if (GvLoad(fcb->Deleted)) {
        GV_TRACE(GvTraceError, "ERROR: fcb: 0x%x already 'deleted'\n", fcb);
        return STATUS_INVALID_PARAMETER;
    }
    if (status == STATUS_NOT_FOUND) {
        GV_TRACE(GvTraceError, "ERROR: fcb: 0x%x is on no tree\n", fcb);
        return STATUS_INVALID_PARAMETER;
    }
    if (NT_SUCCESS(status)) *name = key.Release();
    return status;
}

namespace {

constexpr ULONG kHexTextBytes = 64;

// Lower-case hexadecimal, no leading zeros, NUL-terminated.
void FormatHex(ULONG value, WCHAR* text)
{
    ULONG digits = 1;
    while (digits < 8 && value >> (4 * digits)) ++digits;
    for (ULONG i = 0; i < digits; ++i) text[i] = L"0123456789abcdef"[(value >> (4 * (digits - 1 - i))) & 0xf];
    text[digits] = 0;
}

ULONG BytesOf(const WCHAR* text)
{
    ULONG length = 0;
    while (text[length]) ++length;
    return length * sizeof(WCHAR);
}

[[nodiscard]] NTSTATUS GvFcbGetDeletionKeyForFcb(Fcb* fcb, PCUNICODE_STRING name, PUNICODE_STRING* result)
{
    const GvBlock<WCHAR> hex(static_cast<WCHAR*>(GvAllocate(PagedPool, kHexTextBytes)));
    if (!hex) {
        GV_TRACE(GvTraceError, "out-of-mem 1\n");
        return STATUS_INVALID_PARAMETER;
    }
    FormatHex(static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(fcb)), hex.Get());
    GvString key(GvUtlAllocUnicodeString(PagedPool, name->MaximumLength + BytesOf(hex.Get())));
    if (!key) {
        GV_TRACE(GvTraceError, "out of mem 2\n");
        return STATUS_INVALID_PARAMETER;
    }
    if (const NTSTATUS status = RtlAppendUnicodeStringToString(key.Get(), name); !NT_SUCCESS(status)) {
        GV_TRACE_FAILED("RtlAppendUnicodeStringToString", status);
        return status;
    }
    if (const NTSTATUS status = RtlAppendUnicodeToString(key.Get(), hex.Get()); !NT_SUCCESS(status)) {
        GV_TRACE_FAILED("RtlAppendUnicodeToString", status);
        return status;
    }
    *result = key.Release();
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS GvFcbMarkFcbAsDeleted(IrpContext* context, Fcb* fcb)
{
    FcbTables* const tables = context->Vcb->FcbTables;
    GV_ASSERT_HELD_EXCLUSIVE(&context->Vcb->Resource);
    if (!fcb->ParentFcb) {
        GV_TRACE(GvTraceError, "serious error..., root FCB was deleted?: 0x%x\n", fcb);
        return STATUS_INVALID_PARAMETER;
    }
    GvString name;
    NTSTATUS status = GvTreeGetEntryKey(tables->NameTree, &fcb->TreeEntry, name.Out());
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvFcbGetNameInternal", status);
        return status;
    }
    GvString key;
    status = GvFcbGetDeletionKeyForFcb(fcb, name.Get(), key.Out());
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvFcbGetDeletionKeyFromPath", status);
        return status;
    }
    // From here on the name is free: a create under it makes a new control block beside this one. The directory is kept
    // until the object stands on the other tree: an unmount that finds both trees empty takes the volume away.
    GvTreeRemoveEntryByVal(tables->NameTree, &fcb->TreeEntry);
    status = GvTreeAddEntry(tables->DeletionTree, key.Get(), &fcb->TreeEntry);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvTreeAddEntry", status);
        return status;
    }
    fcb->OnDeletionTree = 1;
    Fcb* const parent = fcb->ParentFcb;
    fcb->ParentFcb = nullptr;
    const NTSTATUS released = GvFcbDerefFcbAndParentChain(context, parent);
    if (!NT_SUCCESS(released)) GV_TRACE_FAILED("GvFcbDerefFcbAndParentChain", released);
    return STATUS_SUCCESS;
}

NTSTATUS GvFcbMoveFcbForRename(IrpContext* context, Fcb* fcb, PFILE_OBJECT target, PCUNICODE_STRING newPath)
{
    GvTree* const tree = context->Vcb->FcbTables->NameTree;
    GV_ASSERT_HELD_EXCLUSIVE(&context->Vcb->Resource);
    if (target) {
        const NTSTATUS status = GvFcbDerefFcbAndParentChain(context, fcb->ParentFcb);
        if (!NT_SUCCESS(status)) GV_TRACE_FAILED("GvFcbDerefFcbAndParentChain", status);
        fcb->ParentFcb = GvFcbOf(target);
        GvFcbAddReference(fcb->ParentFcb);
    }
    const NTSTATUS status = GvTreeMoveEntry(tree, newPath, &fcb->TreeEntry);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED("GvTreeAddEntry", status);
    return status;
}
