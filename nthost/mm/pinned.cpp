// Pages of control areas that descriptions have locked: they stay while a request uses them, whatever happens to the
// views. Counts are under sectionLock.
#include "mm/pinned.h"

#include <sys/mman.h>

#include "ke/thread.h"
#include "mm/view.h"

namespace nthost::mm {

namespace {

// Under sectionLock.
bool AllPresent(const PinnedRange& range)
{
    for (size_t index = range.First; index < range.First + range.Count; ++index)
        if (range.Area->Pages[index].State != PageState::Present) return false;
    return true;
}

} // namespace

bool PinView(const void* address, size_t length, bool write, PinnedRange* pinned)
{
    *pinned = {};
    if (!length || !AnyViews()) return true;
    const auto start = reinterpret_cast<uintptr_t>(address);
    const SectionGuard hold(sectionLock);
    const View* const view = FindView(ke::CurrentThread()->ActsFor, address);
    if (!view || start + length > view->Base + view->PageCount * PAGE_SIZE) return true;
    const PinnedRange range{view->Area, view->FirstPage + (start - view->Base) / PAGE_SIZE,
                            ADDRESS_AND_SIZE_TO_SPAN_PAGES(address, length)};
    if (!AllPresent(range)) return false;
    for (size_t index = range.First; index < range.First + range.Count; ++index) {
        ++range.Area->Pages[index].Pins;
        range.Area->Pages[index].Dirty |= write;
    }
    ++range.Area->Holds;
    *pinned = range;
    return true;
}

void UnpinRange(const PinnedRange& pinned, bool written)
{
    {
        const SectionGuard hold(sectionLock);
        for (size_t index = pinned.First; index < pinned.First + pinned.Count; ++index) {
            Page& page = pinned.Area->Pages[index];
            --page.Pins;
            page.Dirty |= written; // a flush meanwhile may have been before the last change
        }
    }
    ReleaseHold(pinned.Area);
}

void* MapPinned(const PinnedRange& pinned)
{
    void* const at = mmap(nullptr, pinned.Count * PAGE_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, pinned.Area->Memfd,
                          OffsetOfPage(pinned.First));
    return at == MAP_FAILED ? nullptr : at;
}

} // namespace nthost::mm
