// The name trees over the platform's Unicode prefix table, which finds the longest prefix by whole components. A parent
// is no answer to a question about its child, so a lookup compares lengths.

#include "objects/tree.h"

#include "frame/pool.h"
#include "frame/trace.h"
#include "objects/util.h"

NTSTATUS GvTreeInit(GvTree** result)
{
    auto* const tree = GvAllocate<GvTree>(NonPagedPool);
    if (!tree) {
        GV_TRACE(GvTraceError, "out-of-mem\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlInitializeUnicodePrefix(&tree->PrefixTable);
    *result = tree;
    return STATUS_SUCCESS;
}

NTSTATUS GvTreeDelete(GvTree* tree)
{
    if (RtlNextUnicodePrefix(&tree->PrefixTable, TRUE)) {
        GV_TRACE(GvTraceError, "tree: 0x%x, not empty\n", tree);
        return STATUS_UNSUCCESSFUL;
    }
    GvFree(tree);
    return STATUS_SUCCESS;
}

namespace {

// The platform's longest prefix by whole components, which may be the name itself or a directory above it.
GvTreeEntry* LongestPrefix(GvTree* tree, PCUNICODE_STRING name)
{
    PUNICODE_PREFIX_TABLE_ENTRY const found =
        RtlFindUnicodePrefix(&tree->PrefixTable, const_cast<PUNICODE_STRING>(name), 0);
    return found ? CONTAINING_RECORD(found, GvTreeEntry, PrefixEntry) : nullptr;
}

// Under Vcb.Resource nobody changes it.
USHORT KeyLength(const GvTreeEntry* entry) GV_NO_ANALYSIS { return entry->Key->Length; }

// The table refuses a name only in the very same case, and would find either of two that differ in case.
bool HasName(GvTree* tree, PCUNICODE_STRING name)
{
    const GvTreeEntry* const found = LongestPrefix(tree, name);
    return found && KeyLength(found) == name->Length;
}

PUNICODE_STRING ExchangeKey(GvTreeEntry* entry, PUNICODE_STRING key)
{
    GvHeldSpinLock lock(entry->KeyLock);
    const PUNICODE_STRING old = entry->Key;
    entry->Key = key;
    return old;
}

void ReplaceKey(GvTreeEntry* entry, PUNICODE_STRING key) { const GvString old(ExchangeKey(entry, key)); }

// The table has no use for the key any more; readers of the name may.
void Unlink(GvTree* tree, GvTreeEntry* entry)
{
    RtlRemoveUnicodePrefix(&tree->PrefixTable, &entry->PrefixEntry);
    InterlockedDecrement(&tree->Count);
}

} // namespace

NTSTATUS GvTreeAddEntry(GvTree* tree, PCUNICODE_STRING name, GvTreeEntry* entry)
{
    GvString key(GvUtlAllocUnicodeString(NonPagedPool, name->Length));
    if (!key) {
        GV_TRACE(GvTraceError, "out-of-memory\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyUnicodeString(key.Get(), name);
    if (HasName(tree, name) || !RtlInsertUnicodePrefix(&tree->PrefixTable, key.Get(), &entry->PrefixEntry)) {
        GV_TRACE(GvTraceError, "RtlInsertUnicodePrefix(%wZ): FAILED\n", name);
        return STATUS_UNSUCCESSFUL;
    }
    ReplaceKey(entry, key.Release());
    InterlockedIncrement(&tree->Count);
    return STATUS_SUCCESS;
}

NTSTATUS GvTreeRemoveEntryByVal(GvTree* tree, GvTreeEntry* entry)
{
    Unlink(tree, entry);
    ReplaceKey(entry, nullptr);
    return STATUS_SUCCESS;
}

NTSTATUS GvTreeMoveEntry(GvTree* tree, PCUNICODE_STRING name, GvTreeEntry* entry)
{
    Unlink(tree, entry);
    const NTSTATUS status = GvTreeAddEntry(tree, name, entry);
    if (!NT_SUCCESS(status)) ReplaceKey(entry, nullptr);
    return status;
}

namespace {

GvTreeEntry* GvTreeGetEntryInternal(GvTree* tree, PCUNICODE_STRING name)
{
    GvTreeEntry* const entry = LongestPrefix(tree, name);
    if (!entry) {
        GV_TRACE(GvTraceNotable, "RtlFindUnicodePrefix(%wZ) not-found\n", name);
        return nullptr;
    }
    if (KeyLength(entry) != name->Length) {
        GV_TRACE(GvTraceNotable, "RtlFindUnicodePrefix(%wZ) not-found length differs\n", name);
        return nullptr;
    }
    return entry;
}

// 0 for an entry that is on no tree.
USHORT LengthNow(GvTreeEntry* entry)
{
    GvHeldSpinLock lock(entry->KeyLock);
    return entry->Key ? entry->Key->Length : USHORT{0};
}

// False if the name has been replaced by a longer one meanwhile.
bool CopyKey(GvTreeEntry* entry, PUNICODE_STRING copy)
{
    GvHeldSpinLock lock(entry->KeyLock);
    if (!entry->Key || entry->Key->Length > copy->MaximumLength) return false;
    RtlCopyMemory(copy->Buffer, entry->Key->Buffer, entry->Key->Length);
    copy->Length = entry->Key->Length;
    return true;
}

} // namespace

NTSTATUS GvTreeGetEntry(GvTree* tree, PCUNICODE_STRING name, GvTreeEntry** entry)
{
    *entry = GvTreeGetEntryInternal(tree, name);
    return *entry ? STATUS_SUCCESS : STATUS_NOT_FOUND;
}

NTSTATUS GvTreeGetEntryKey(GvTree*, GvTreeEntry* entry, PUNICODE_STRING* name)
{
    while (const USHORT length = LengthNow(entry)) {
        GvString copy(GvUtlAllocUnicodeString(NonPagedPool, length)); // filled under a spin lock
        if (!copy) {
            GV_TRACE(GvTraceError, "out-of-mem\n");
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        if (!CopyKey(entry, copy.Get())) continue;
        *name = copy.Release();
        return STATUS_SUCCESS;
    }
    return STATUS_NOT_FOUND;
}

ULONG GvTreeGetEntryCount(const GvTree* tree) { return static_cast<ULONG>(GvLoad(tree->Count)); }

GvTreeEntry* GvTreeGetNextEntry(GvTree* tree, GvWalk walk)
{
    if (GvTreeGetEntryCount(tree) == 0) return nullptr;
    PUNICODE_PREFIX_TABLE_ENTRY const next = RtlNextUnicodePrefix(&tree->PrefixTable, walk == GvWalk::Restart);
    return next ? CONTAINING_RECORD(next, GvTreeEntry, PrefixEntry) : nullptr;
}
