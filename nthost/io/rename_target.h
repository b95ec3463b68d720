// Where a rename or a link leads that was given a path instead of a simple name.
#pragma once

#include "io/request.h"

namespace nthost::io {

// A name with a leading backslash, or one that is relative to a directory of its own.
bool NamesATarget(const FILE_RENAME_INFORMATION& info);

// Opens the directory that is to hold the new name, through the file system and with the caller's rights; the file
// object is referenced for the caller, and closes with that reference. STATUS_OBJECT_NAME_COLLISION for a name that is
// taken and not to be replaced, STATUS_NOT_SAME_DEVICE for one on another device than the request's.
[[nodiscard]] NTSTATUS OpenRenameTarget(const Request& request, const FILE_RENAME_INFORMATION& info,
                                        FILE_INFORMATION_CLASS infoClass, PFILE_OBJECT* target);

} // namespace nthost::io
