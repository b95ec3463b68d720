// The driver has no cache of its own; what it keeps coherent is the memory manager's view of a mapped file.
#pragma once

#include "frame/records.h"

enum class MmFlush : bool { No, Yes };

// Flushes, if asked, and purges the file's mapped pages: the whole file for a null offset and length 0. Pages that
// could not be written stay. Failures are traced only; a caller that needs to know looks at what it cares about. Under
// the object's lock, exclusive.
void GvUtlFlushAndPurgeMm(Fcb* fcb, PLARGE_INTEGER offset, ULONG length, MmFlush flush);
