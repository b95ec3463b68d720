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

NTSTATUS GvTreeAddEntry(GvTree* tree, PCUNICODE_STRING name, GvTreeEntry* entry)
{
    GvString key(GvUtlAllocUnicodeString(NonPagedPool, name->Length));
    if (!key) {
        GV_TRACE(GvTraceError, "out-of-memory\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyUnicodeString(key.Get(), name);
    entry->Key = key.Get();
    if (!RtlInsertUnicodePrefix(&tree->PrefixTable, key.Get(), &entry->PrefixEntry)) {
        GV_TRACE(GvTraceError, "RtlInsertUnicodePrefix(%wZ): FAILED\n", name);
        entry->Key = nullptr;
        return STATUS_UNSUCCESSFUL;
    }
    key.Release();
    InterlockedIncrement(&tree->Count);
    return STATUS_SUCCESS;
}

NTSTATUS GvTreeRemoveEntryByVal(GvTree* tree, GvTreeEntry* entry)
{
    RtlRemoveUnicodePrefix(&tree->PrefixTable, &entry->PrefixEntry);
    GvFree(entry->Key);
    entry->Key = nullptr;
    InterlockedDecrement(&tree->Count);
    return STATUS_SUCCESS;
}

namespace {

GvTreeEntry* GvTreeGetEntryInternal(GvTree* tree, PCUNICODE_STRING name)
{
    PUNICODE_PREFIX_TABLE_ENTRY const found =
        RtlFindUnicodePrefix(&tree->PrefixTable, const_cast<PUNICODE_STRING>(name), 0);
    if (!found) {
        GV_TRACE(GvTraceNotable, "RtlFindUnicodePrefix(%wZ) not-found\n", name);
        return nullptr;
    }
    auto* const entry = CONTAINING_RECORD(found, GvTreeEntry, PrefixEntry);
    if (entry->Key->Length != name->Length) {
        GV_TRACE(GvTraceNotable, "RtlFindUnicodePrefix(%wZ) not-found length differs\n", name);
        return nullptr;
    }
    return entry;
}

} // namespace

NTSTATUS GvTreeGetEntry(GvTree* tree, PCUNICODE_STRING name, GvTreeEntry** entry)
{
    *entry = GvTreeGetEntryInternal(tree, name);
    return *entry ? STATUS_SUCCESS : STATUS_NOT_FOUND;
}

NTSTATUS GvTreeGetEntryKey(GvTree*, GvTreeEntry* entry, PUNICODE_STRING* name)
{
    const PUNICODE_STRING copy = GvUtlAllocUnicodeString(PagedPool, entry->Key->Length);
    if (!copy) {
        GV_TRACE(GvTraceError, "out-of-mem\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyUnicodeString(copy, entry->Key);
    *name = copy;
    return STATUS_SUCCESS;
}

ULONG GvTreeGetEntryCount(const GvTree* tree) { return static_cast<ULONG>(GvLoad(tree->Count)); }

GvTreeEntry* GvTreeGetNextEntry(GvTree* tree, GvWalk walk)
{
    if (GvTreeGetEntryCount(tree) == 0) return nullptr;
    PUNICODE_PREFIX_TABLE_ENTRY const next = RtlNextUnicodePrefix(&tree->PrefixTable, walk == GvWalk::Restart);
    return next ? CONTAINING_RECORD(next, GvTreeEntry, PrefixEntry) : nullptr;
}
