// Pages that are locked, by the descriptions that have them locked.
#pragma once

#include "mm/control_area.h"

namespace nthost::mm {

// What an MDL has locked of an area; Area null for other memory.
struct PinnedRange {
    ControlArea* Area; // held
    size_t First;
    size_t Count;
};
// Locks the pages behind a range of one view that has just been touched. Area null if no view of the caller's process
// has all of it. False if a page went away again meanwhile: touch once more.
[[nodiscard]] bool PinView(const void* address, size_t length, bool write, PinnedRange* pinned);
// `written` says that the pages may have been changed until now.
void UnpinRange(const PinnedRange& pinned, bool written);
// A second address of the pages, page-aligned; null if there is no room.
void* MapPinned(const PinnedRange& pinned);

// A locked, unmapped description of the pages for a paging request, which ends it; null without memory.
PMDL NewPagingMdl(ControlArea* area, size_t firstPage, ULONG length, bool forRead);

} // namespace nthost::mm
