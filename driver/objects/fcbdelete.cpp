// A deleted control block on its way to the deletion tree. Its key there is the full path with the block's address
// behind it, so that any number of deleted objects of one name can wait for their last close.

#include "objects/fcb.h"

#include "frame/resource.h"
#include "frame/trace.h"
#include "objects/tree.h"
#include "objects/util.h"

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
    if (!hex) return GV_REFUSE(STATUS_INVALID_PARAMETER, "out-of-mem 1\n");
    FormatHex(static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(fcb)), hex.Get());
    GvString key(GvUtlAllocUnicodeString(PagedPool, name->MaximumLength + BytesOf(hex.Get())));
    if (!key) return GV_REFUSE(STATUS_INVALID_PARAMETER, "out of mem 2\n");
    GV_TRY_TRACED("RtlAppendUnicodeStringToString", RtlAppendUnicodeStringToString(key.Get(), name));
    GV_TRY_TRACED("RtlAppendUnicodeToString", RtlAppendUnicodeToString(key.Get(), hex.Get()));
    *result = key.Release();
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS GvFcbMarkFcbAsDeleted(IrpContext* context, Fcb* fcb)
{
    FcbTables* const tables = context->Vcb->FcbTables;
    GV_ASSERT_HELD_EXCLUSIVE(&context->Vcb->Resource);
    if (!fcb->ParentFcb)
        return GV_REFUSE(STATUS_INVALID_PARAMETER, "serious error..., root FCB was deleted?: 0x%x\n", fcb);
    GvString name;
    GV_TRY_TRACED("GvFcbGetNameInternal", GvTreeGetEntryKey(tables->NameTree, &fcb->TreeEntry, name.Out()));
    GvString key;
    GV_TRY_TRACED("GvFcbGetDeletionKeyFromPath", GvFcbGetDeletionKeyForFcb(fcb, name.Get(), key.Out()));
    // From here on the name is free: a create under it makes a new control block beside this one. The directory is kept
    // until the object stands on the other tree: an unmount that finds both trees empty takes the volume away.
    GvTreeRemoveEntryByVal(tables->NameTree, &fcb->TreeEntry);
    GV_TRY_TRACED("GvTreeAddEntry", GvTreeAddEntry(tables->DeletionTree, key.Get(), &fcb->TreeEntry));
    fcb->OnDeletionTree = 1;
    Fcb* const parent = fcb->ParentFcb;
    fcb->ParentFcb = nullptr;
    const NTSTATUS released = GvFcbDerefFcbAndParentChain(context, parent);
    if (!NT_SUCCESS(released)) GV_TRACE_FAILED("GvFcbDerefFcbAndParentChain", released);
    return STATUS_SUCCESS;
}
