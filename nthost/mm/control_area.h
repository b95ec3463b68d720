// Control areas: what the memory manager keeps per mapped file, its pages and views, and the reference that it holds on
// a file object. One lock, sectionLock, guards all of it: areas, pages, views, and the slots of
// SECTION_OBJECT_POINTERS. The lock is a leaf: under it no driver is called, nobody is waited for, and no view's
// address is touched, so a page fault may take it wherever it comes from.
#pragma once

#include <mutex>
#include <vector>

#include <ntifs.h>

#include "ke/end_signal.h"
#include "ke/word_lock.h"

namespace nthost::mm {

enum class PageState : uint8_t { Absent, Reading, Present };

struct Page {
    PageState State;
    bool Dirty;      // changed since it was last written
    bool Stale;      // while it is read: it was purged meanwhile, so what the read brings may be old
    bool Writing;    // a paging write of it is out
    uint32_t Pins;   // descriptions that have it locked, those of its own paging requests included
    PETHREAD Reader; // while it is read
};

enum class AreaKind { Data, Image };

struct ControlArea;

// A mapped range of one process. Its pages are inaccessible until they are faulted in.
struct View {
    ControlArea* Area;
    PEPROCESS Process; // not referenced: a process takes its views with it
    uintptr_t Base;
    size_t FirstPage; // of the area
    size_t PageCount;
    bool Readable;
    bool Writable;
};

// Lives while anything counts on it or a page is present. The page contents are those of the memfd.
struct ControlArea {
    PFILE_OBJECT File; // referenced
    PSECTION_OBJECT_POINTERS Pointers;
    AreaKind Kind;
    int Memfd;
    ke::EndSignal Changed; // a page was read or written

    // Under sectionLock:
    LONGLONG Size;           // of the file when a section was last made; paging requests do not go beyond
    std::vector<Page> Pages; // never fewer than Size asks for
    size_t PresentPages;
    unsigned Sections; // section objects
    unsigned Holds;    // of routines at work on it, and of locked descriptions
    std::vector<View*> Views;
};

struct PageRange {
    size_t First;
    size_t End; // one past the last
};

extern ke::WordLock sectionLock;
using SectionGuard = std::lock_guard<ke::WordLock>;

inline size_t PagesFor(LONGLONG bytes) { return static_cast<size_t>((bytes + PAGE_SIZE - 1) >> PAGE_SHIFT); }
inline LONGLONG OffsetOfPage(size_t index) { return static_cast<LONGLONG>(index) << PAGE_SHIFT; }

// Whoever has the file mapped or could map it without asking the file system again. Under sectionLock.
inline bool HasUsers(const ControlArea* area) { return area->Sections != 0 || !area->Views.empty(); }

// The area that the pointers name, held for the caller; null if there is none.
ControlArea* HoldArea(PSECTION_OBJECT_POINTERS pointers, AreaKind kind);
// Gives a hold back. The last use of an area without pages ends it: its file object is dereferenced here, which may
// send a close.
void ReleaseHold(ControlArea* area);

// A hold for a scope. Not across a raise, which runs no destructors.
class AreaHold {
public:
    explicit AreaHold(ControlArea* area) : area_(area) {} // takes over the caller's; may be null
    ~AreaHold()
    {
        if (area_) ReleaseHold(area_);
    }
    AreaHold(const AreaHold&) = delete;
    AreaHold& operator=(const AreaHold&) = delete;
    ControlArea* Get() const { return area_; }
    explicit operator bool() const { return area_; }
    ControlArea* operator->() const { return area_; }

private:
    ControlArea* area_;
};

// Whether a section can have so many bytes at all.
bool CanBeMapped(LONGLONG size);
// The file's area, made if there is none, for a file of that size, with one section counted (give it back with
// ReleaseSection). STATUS_INSUFFICIENT_RESOURCES, STATUS_SECTION_TOO_BIG.
[[nodiscard]] NTSTATUS ReferenceArea(PFILE_OBJECT file, AreaKind kind, LONGLONG fileSize, ControlArea** area);
void ReleaseSection(ControlArea* area);

// Areas that nobody uses, held for the caller.
std::vector<ControlArea*> HoldIdleAreas();
// At shutdown, when only areas are left whose sections leaked.
void ForgetAreas();

} // namespace nthost::mm
