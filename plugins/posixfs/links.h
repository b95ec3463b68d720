// Where a symbolic link leads, as a path from the volume root, and what a link holds that leads there. Worked out by
// the text alone: "." and ".." are resolved without looking whether what they follow is a link. Pure functions.
#pragma once

#include <string>

#include "names.h"

namespace posixfs {

// target is what the link holds; directory the names that lead to the link's directory; roots the absolute paths of the
// root. STATUS_ACCESS_DENIED for a target that leaves the root, STATUS_OBJECT_PATH_SYNTAX_BAD for an empty one.
[[nodiscard]] NTSTATUS TargetFromRoot(const std::string& target, const Components& directory,
                                      const std::vector<std::string>& roots, NtText* path);

// What a link in the directory must hold to lead to the target, both given by their names from the root down.
[[nodiscard]] std::string LinkText(const Components& directory, const Components& target);

} // namespace posixfs
