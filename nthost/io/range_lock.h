// What byte-range locks mean for the life of file objects.
#pragma once

#include <ntifs.h>

namespace nthost::io {

// A process has closed its last handle on the file object, and others have not: its locks go, if any lock was ever
// asked for through the services.
void UnlockAllOf(PFILE_OBJECT file, PEPROCESS process);

} // namespace nthost::io
