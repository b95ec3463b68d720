// Life of control areas: made by the first section of a file, found through its section pointers, ended when nobody
// uses them and no page is present. Relies on sectionLock; the file system is called only without it.
#include "mm/control_area.h"

#include <algorithm>
#include <new>
#include <sys/mman.h>
#include <unistd.h>

#include <nthost/check.h>
#include <nthost/debug.h>
#include <nthost/faults.h>

#include "ke/lock_order.h"

namespace nthost::mm {

ke::WordLock sectionLock;

namespace {

std::vector<ControlArea*> g_areas; // under sectionLock

constexpr size_t MaximumPages = size_t{1} << 22; // 16 GiB: a page's record costs memory too

PVOID* SlotOf(PSECTION_OBJECT_POINTERS pointers, AreaKind kind)
{
    return kind == AreaKind::Data ? &pointers->DataSectionObject : &pointers->ImageSectionObject;
}

// File systems look at the slots without a lock.
void SetSlot(const ControlArea* area, ControlArea* value)
{
    __atomic_store_n(SlotOf(area->Pointers, area->Kind), value, __ATOMIC_RELEASE);
}

ControlArea* AreaIn(PSECTION_OBJECT_POINTERS pointers, AreaKind kind)
{
    return static_cast<ControlArea*>(*SlotOf(pointers, kind));
}

// Under sectionLock. If nothing is left of the area, nobody finds it any more, and the caller ends it.
bool Unlink(ControlArea* area)
{
    if (HasUsers(area) || area->Holds || area->PresentPages) return false;
    SetSlot(area, nullptr);
    std::erase(g_areas, area);
    return true;
}

// With nobody else's knowledge of it: an area that was unlinked, or never linked.
void EndArea(ControlArea* area)
{
    PFILE_OBJECT const file = area->File;
    if (NTHOST_CHECKS) ForgetLocksIn(area, sizeof *area);
    close(area->Memfd);
    delete area;
    ObDereferenceObject(file);
}

// Under sectionLock.
NTSTATUS Resize(ControlArea* area, LONGLONG size)
{
    const size_t pages = PagesFor(size);
    if (pages > area->Pages.size()) {
        if (ftruncate(area->Memfd, OffsetOfPage(pages)) != 0) return STATUS_INSUFFICIENT_RESOURCES;
        try {
            area->Pages.resize(pages);
        } catch (const std::bad_alloc&) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    area->Size = size;
    return STATUS_SUCCESS;
}

// What lies behind the end of a file that has shrunk can neither be read nor written.
void DropBeyondEnd(ControlArea* area)
{
    for (size_t index = PagesFor(area->Size); index < area->Pages.size(); ++index) {
        Page& page = area->Pages[index];
        if (page.State != PageState::Present || page.Pins) continue;
        page = {};
        --area->PresentPages;
    }
}

// A file is as long for all of its sections as it was for the last one; it does not shrink under a user of it.
NTSTATUS FitSize(ControlArea* area, LONGLONG fileSize)
{
    if (!HasUsers(area)) {
        const NTSTATUS status = Resize(area, fileSize);
        if (NT_SUCCESS(status)) DropBeyondEnd(area);
        return status;
    }
    return fileSize > area->Size ? Resize(area, fileSize) : STATUS_SUCCESS;
}

ControlArea* NewArea(PFILE_OBJECT file, AreaKind kind)
{
    if (FaultInjected("NtCreateSection")) return nullptr;
    auto* const area = new (std::nothrow) ControlArea{};
    if (!area) return nullptr;
    area->Memfd = memfd_create("section", MFD_CLOEXEC);
    if (area->Memfd < 0) {
        delete area;
        return nullptr;
    }
    ObReferenceObject(file);
    area->File = file;
    area->Pointers = file->SectionObjectPointer;
    area->Kind = kind;
    if (NTHOST_CHECKS)
        NamePages(area, (kind == AreaKind::Image ? "image pages of " : "pages of ") + ToUtf8(&file->FileName));
    return area;
}

struct Found {
    ControlArea* Area;
    NTSTATUS Status;
    bool IsCandidate; // it was linked
};

Found LinkOrFind(ControlArea* candidate, LONGLONG fileSize)
{
    const SectionGuard hold(sectionLock);
    ControlArea* const existing = AreaIn(candidate->Pointers, candidate->Kind);
    ControlArea* const area = existing ? existing : candidate;
    const NTSTATUS status = FitSize(area, fileSize);
    if (!NT_SUCCESS(status)) return {area, status, false};
    ++area->Sections;
    if (existing) return {area, status, false};
    SetSlot(area, area);
    g_areas.push_back(area);
    return {area, status, true};
}

} // namespace

ControlArea* HoldArea(PSECTION_OBJECT_POINTERS pointers, AreaKind kind)
{
    if (!pointers || !__atomic_load_n(SlotOf(pointers, kind), __ATOMIC_ACQUIRE)) return nullptr;
    const SectionGuard hold(sectionLock);
    ControlArea* const area = AreaIn(pointers, kind);
    if (area) ++area->Holds;
    return area;
}

void ReleaseHold(ControlArea* area)
{
    {
        const SectionGuard hold(sectionLock);
        --area->Holds;
        if (!Unlink(area)) return;
    }
    EndArea(area);
}

void ReleaseSection(ControlArea* area)
{
    {
        const SectionGuard hold(sectionLock);
        --area->Sections;
        if (!Unlink(area)) return;
    }
    EndArea(area);
}

bool CanBeMapped(LONGLONG size) { return size <= OffsetOfPage(MaximumPages); }

NTSTATUS ReferenceArea(PFILE_OBJECT file, AreaKind kind, LONGLONG fileSize, ControlArea** area)
{
    if (!CanBeMapped(fileSize)) return STATUS_SECTION_TOO_BIG;
    ControlArea* const candidate = NewArea(file, kind);
    if (!candidate) return STATUS_INSUFFICIENT_RESOURCES;
    const Found found = LinkOrFind(candidate, fileSize);
    *area = found.Area;
    if (!found.IsCandidate) EndArea(candidate);
    return found.Status;
}

std::vector<ControlArea*> HoldIdleAreas()
{
    std::vector<ControlArea*> idle;
    const SectionGuard hold(sectionLock);
    for (ControlArea* area : g_areas) {
        if (HasUsers(area) || area->Holds) continue;
        ++area->Holds;
        idle.push_back(area);
    }
    return idle;
}

void ForgetAreas()
{
    const SectionGuard hold(sectionLock);
    g_areas.clear();
}

} // namespace nthost::mm
