// The name trees. Every change and walk happens under Vcb.Resource, exclusive; the count and a name are read without
// it.
#pragma once

#include "frame/records.h"

[[nodiscard]] NTSTATUS GvTreeInit(GvTree** tree);
// STATUS_UNSUCCESSFUL, with the tree left usable, while it has entries.
[[nodiscard]] NTSTATUS GvTreeDelete(GvTree* tree);

// STATUS_UNSUCCESSFUL for a name that is on the tree, in whatever case, STATUS_INSUFFICIENT_RESOURCES; the entry is
// then not in use.
[[nodiscard]] NTSTATUS GvTreeAddEntry(GvTree* tree, PCUNICODE_STRING name, GvTreeEntry* entry);
// The entry must be on this tree. Always succeeds.
NTSTATUS GvTreeRemoveEntryByVal(GvTree* tree, GvTreeEntry* entry);
// Takes the entry from its name to another. Its old name can be read until it has the new one; after a failure, which
// is one of GvTreeAddEntry's, it is on no tree.
[[nodiscard]] NTSTATUS GvTreeMoveEntry(GvTree* tree, PCUNICODE_STRING name, GvTreeEntry* entry);

// The entry is on a tree. Under Vcb.Resource.
inline bool GvTreeHasEntry(const GvTreeEntry* entry) GV_NO_ANALYSIS { return entry->Key != nullptr; }

// Exact match, without regard to case. STATUS_NOT_FOUND.
[[nodiscard]] NTSTATUS GvTreeGetEntry(GvTree* tree, PCUNICODE_STRING name, GvTreeEntry** entry);
// A copy of the entry's name for the caller to free. Needs no lock; STATUS_NOT_FOUND for an entry that is on no tree.
[[nodiscard]] NTSTATUS GvTreeGetEntryKey(GvTree* tree, GvTreeEntry* entry, PUNICODE_STRING* name);
ULONG GvTreeGetEntryCount(const GvTree* tree);

enum class GvWalk : bool { Continue, Restart };
// Every entry once, in the platform's order; null at the end. Not to be interleaved with changes.
GvTreeEntry* GvTreeGetNextEntry(GvTree* tree, GvWalk walk);
