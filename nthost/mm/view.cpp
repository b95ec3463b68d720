// Views: where they lie, and what they allow. The table of views is under sectionLock. An address range goes back to
// Linux under the lock too, so that nothing else can be found at an address that a fault looks up.
#include "mm/view.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <new>
#include <string>
#include <sys/mman.h>

#include <nthost/debug.h>
#include <nthost/faults.h>

#include "check/fatal.h"
#include "check/text.h"

#ifndef MAP_FIXED_NOREPLACE
#define MAP_FIXED_NOREPLACE 0x100000
#endif

namespace nthost::mm {

namespace {

constexpr size_t Granularity = 0x10000;

std::map<uintptr_t, View*> g_views; // by base; under sectionLock
std::atomic<unsigned> g_viewCount;  // its size, read without: a fault that concerns no view costs no lock

size_t BytesOf(const View* view) { return view->PageCount * PAGE_SIZE; }

// An aligned range of inaccessible memory; null without room, or where something stands already.
char* Reserve(void* base, size_t length)
{
    constexpr int Flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
    if (base) {
        void* const at = mmap(base, length, PROT_NONE, Flags | MAP_FIXED_NOREPLACE, -1, 0);
        if (at == base) return static_cast<char*>(at);
        if (at != MAP_FAILED) munmap(at, length); // an old kernel takes the address for a hint
        return nullptr;
    }
    void* const at = mmap(nullptr, length + Granularity, PROT_NONE, Flags, -1, 0);
    if (at == MAP_FAILED) return nullptr;
    const auto start = reinterpret_cast<uintptr_t>(at);
    const uintptr_t aligned = (start + Granularity - 1) & ~(Granularity - 1);
    if (aligned != start) munmap(at, aligned - start);
    munmap(reinterpret_cast<void*>(aligned + length), start + Granularity - aligned);
    return reinterpret_cast<char*>(aligned);
}

bool MapPages(const View* view)
{
    return mmap(reinterpret_cast<void*>(view->Base), BytesOf(view), PROT_NONE, MAP_SHARED | MAP_FIXED | MAP_NORESERVE,
                view->Area->Memfd, OffsetOfPage(view->FirstPage)) != MAP_FAILED;
}

void Enlist(View* view)
{
    const SectionGuard hold(sectionLock);
    view->Area->Views.push_back(view);
    g_views.emplace(view->Base, view);
    g_viewCount.store(static_cast<unsigned>(g_views.size()), std::memory_order_release);
}

// Under sectionLock. The area is held for the caller, whose release may be its end.
ControlArea* Withdraw(View* view)
{
    ControlArea* const area = view->Area;
    ++area->Holds;
    std::erase(area->Views, view);
    g_views.erase(view->Base);
    g_viewCount.store(static_cast<unsigned>(g_views.size()), std::memory_order_release);
    munmap(reinterpret_cast<void*>(view->Base), BytesOf(view));
    delete view;
    return area;
}

View* FirstViewOf(PEPROCESS process)
{
    for (const auto& [base, view] : g_views)
        if (!process || view->Process == process) return view;
    return nullptr;
}

View* NewView(const ViewRequest& request)
{
    if (FaultInjected("NtMapViewOfSection")) return nullptr;
    return new (std::nothrow) View{.Area = request.Area,
                                   .Process = request.Process,
                                   .Base = 0,
                                   .FirstPage = static_cast<size_t>(request.Offset >> PAGE_SHIFT),
                                   .PageCount = PagesFor(static_cast<LONGLONG>(request.Length)),
                                   .Readable = request.Readable,
                                   .Writable = request.Writable};
}

} // namespace

bool AnyViews() { return g_viewCount.load(std::memory_order_acquire) != 0; }

View* FindView(PEPROCESS process, const void* address)
{
    const auto at = reinterpret_cast<uintptr_t>(address);
    auto after = g_views.upper_bound(at);
    if (after == g_views.begin()) return nullptr;
    View* const view = std::prev(after)->second;
    return view->Process == process && at < view->Base + BytesOf(view) ? view : nullptr;
}

NTSTATUS MapView(const ViewRequest& request, void** base)
{
    View* const view = NewView(request);
    if (!view) return STATUS_INSUFFICIENT_RESOURCES;
    view->Base = reinterpret_cast<uintptr_t>(Reserve(request.Base, BytesOf(view)));
    if (!view->Base) {
        delete view;
        return request.Base ? STATUS_CONFLICTING_ADDRESSES : STATUS_NO_MEMORY;
    }
    if (!MapPages(view)) {
        munmap(reinterpret_cast<void*>(view->Base), BytesOf(view));
        delete view;
        return STATUS_NO_MEMORY;
    }
    *base = reinterpret_cast<void*>(view->Base);
    Enlist(view);
    return STATUS_SUCCESS;
}

NTSTATUS UnmapView(PEPROCESS process, const void* address)
{
    ControlArea* area;
    {
        const SectionGuard hold(sectionLock);
        View* const view = FindView(process, address);
        if (!view) return STATUS_NOT_MAPPED_VIEW;
        area = Withdraw(view);
    }
    ReleaseHold(area);
    return STATUS_SUCCESS;
}

std::vector<std::string> UnmapViewsOf(PEPROCESS process)
{
    std::vector<std::string> lines;
    for (;;) {
        ControlArea* area;
        uintptr_t base;
        {
            const SectionGuard hold(sectionLock);
            View* const view = FirstViewOf(process);
            if (!view) return lines;
            base = view->Base;
            area = Withdraw(view);
        }
        lines.push_back(Format("view at %p of file ", reinterpret_cast<void*>(base)) + ToUtf8(&area->File->FileName));
        ReleaseHold(area);
    }
}

void ProtectInViews(ControlArea* area, PageRange range, int protection)
{
    for (const View* view : area->Views) {
        const size_t first = std::max(range.First, view->FirstPage);
        const size_t end = std::min(range.End, view->FirstPage + view->PageCount);
        if (first >= end) continue;
        void* const at = reinterpret_cast<void*>(view->Base + (first - view->FirstPage) * PAGE_SIZE);
        const int allowed = view->Readable ? protection : PROT_NONE;
        if (mprotect(at, (end - first) * PAGE_SIZE, allowed) != 0) Fatal("a view's protection cannot be changed");
    }
}

} // namespace nthost::mm
