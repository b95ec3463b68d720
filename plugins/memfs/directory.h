// The entries of a directory: a tree through the nodes themselves, ordered by CompareNames and balanced by weight, so
// that the subtree counts that keep it balanced also find an entry by its place. All steps are O(log n), and inserting
// and removing need no memory. Everything under MemFs.TreeLock, exclusive for what changes.
#pragma once

#include "node.h"

namespace memfs {

// Null if there is none.
Node* DirectoryFind(const Node* directory, const UNICODE_STRING& name);
// The entry at a place from 0, in name order; null beyond the last.
Node* DirectoryAt(const Node* directory, ULONG index);
// False, with nothing done, if the name is taken. The directory takes over a reference of the caller's.
[[nodiscard]] bool DirectoryInsert(Node* directory, Node* node);
// The node's reference passes to the caller.
void DirectoryRemove(Node* node);
// Takes entries out in no order, to end them all: O(1) on average. The reference passes; Parent stays as it was.
Node* DirectoryTakeAny(Node* directory);

} // namespace memfs
