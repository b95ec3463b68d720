// The pages of a control area: reading them in, writing changed ones, dropping them.
#pragma once

#include "mm/control_area.h"

namespace nthost::mm {

// Reads the page, which the caller has set to Reading. The status of the failure if it stays absent.
[[nodiscard]] NTSTATUS ReadPage(ControlArea* area, size_t index);
// Until nobody reads the page any more.
void AwaitRead(ControlArea* area, size_t index);

// The pages of a byte range as cache routines take it: a null offset means all, a zero length everything from there on.
PageRange RangeOf(const ControlArea* area, const LARGE_INTEGER* offset, ULONGLONG length);

enum class WriteFor { Flush, ModifiedWriter };
// Writes the run of changed pages that comes first in the range, of at most 16 pages, and moves range->First behind it.
// False if there is none. The outcome is added to *result: its first error, and the bytes written.
bool WriteNextRun(ControlArea* area, PageRange* range, WriteFor purpose, IO_STATUS_BLOCK* result);
// Where WriteNextRun would end its run; zero if nothing is changed.
LONGLONG EndOfNextRun(ControlArea* area, const PageRange& range);
// All of the range's, with the file system's flush callbacks around. Result as CcFlushCache gives it.
void FlushRange(ControlArea* area, PageRange range, IO_STATUS_BLOCK* result);
// Drops the pages, changed or not; views fault on them anew. False if some are locked, which stay.
bool PurgeRange(ControlArea* area, PageRange range);
// Drops all pages of an area that has no users; false, with the pages left, if it has some, if a page is locked, or if
// one is changed and those must not be lost.
bool DropUnused(ControlArea* area, bool dirtyToo);

} // namespace nthost::mm
