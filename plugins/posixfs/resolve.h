// Finding objects by the volume's paths. Names are looked up as they are spelled, and only when that finds nothing
// without regard to case. Needs no lock. Component names are trusted to hold no slash and not to be "." or ".."
// (ParsePath).
#pragma once

#include <ntifs.h>

#include "node.h"

namespace posixfs {

// Where a name is, or would be made.
struct Place {
    NodeRef Parent;
    std::string Given; // as the path spells it
    std::string Leaf;  // as the directory spells it, if it is there
    bool Exists = false;
};

// Any object, a link itself included. STATUS_OBJECT_NAME_NOT_FOUND or STATUS_OBJECT_PATH_NOT_FOUND, by where the path
// ends to exist.
[[nodiscard]] NTSTATUS Resolve(Store& store, const Components& path, NodeRef* node);
// STATUS_ACCESS_DENIED for the root, which has no place.
[[nodiscard]] NTSTATUS Locate(Store& store, const Components& path, Place* place);

// What a name of a directory leads to now: 0 or an errno.
[[nodiscard]] int StatChild(const Node& directory, const std::string& name, NodeStat* stat);

} // namespace posixfs
