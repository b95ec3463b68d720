// From paths to nodes. A path begins with a backslash at the root; its components are separated by single ones. A link
// is not followed here: the driver resolves it and comes back with the path of what it stands for.
#pragma once

#include "volume.h"

namespace memfs {

// A path cut before its last component, by text alone. Both point into the path.
struct SplitPath {
    UNICODE_STRING Directory; // "\" or without a backslash at the end
    UNICODE_STRING Leaf;      // empty for the root itself
};

// STATUS_OBJECT_PATH_SYNTAX_BAD without a backslash in front, STATUS_OBJECT_NAME_INVALID for a leaf that is no name.
[[nodiscard]] NTSTATUS PathSplit(const UNICODE_STRING& path, SplitPath* split);

// These two under MemFs.TreeLock; the node comes without a reference.
// STATUS_OBJECT_NAME_NOT_FOUND if only the last component is missing, STATUS_OBJECT_PATH_NOT_FOUND if an earlier one is
// or is no directory.
[[nodiscard]] NTSTATUS PathFind(MemFs* volume, const UNICODE_STRING& path, Node** node);
// For what is to contain something: STATUS_OBJECT_PATH_NOT_FOUND unless it is a directory.
[[nodiscard]] NTSTATUS PathFindDirectory(MemFs* volume, const UNICODE_STRING& path, Node** directory);

// Takes the lock itself; the node comes with a reference.
[[nodiscard]] NTSTATUS PathReference(MemFs* volume, const UNICODE_STRING& path, Node** node);

} // namespace memfs
