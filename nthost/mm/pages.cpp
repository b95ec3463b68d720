// Pages of control areas: paging reads that fill them, paging writes that clean them, and the purge. States change
// under sectionLock; the file system is called without it, with the page marked as being read or written meanwhile.
#include "mm/pages.h"

#include <algorithm>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

#include "check/fatal.h"
#include "fsrtl/acquire.h"
#include "io/paging.h"
#include "ke/thread.h"
#include "mm/pinned.h"
#include "mm/view.h"

namespace nthost::mm {

namespace {

constexpr size_t MaximumRun = 16;
constexpr LONGLONG Sector = 512;

// A page is read whole, the last one up to the end of the file's last sector.
ULONG ReadLength(const ControlArea* area, size_t index)
{
    const LONGLONG left = area->Size - OffsetOfPage(index);
    const LONGLONG sectors = (left + Sector - 1) / Sector * Sector;
    return static_cast<ULONG>(std::clamp<LONGLONG>(sectors, 0, PAGE_SIZE));
}

void ZeroTail(const ControlArea* area, size_t index, size_t filled)
{
    static constexpr char zeros[PAGE_SIZE] = {};
    if (filled >= PAGE_SIZE) return;
    const off_t at = OffsetOfPage(index) + static_cast<off_t>(filled);
    const size_t length = PAGE_SIZE - filled;
    if (pwrite(area->Memfd, zeros, length, at) != static_cast<ssize_t>(length))
        Fatal("a section's page cannot be zeroed");
}

// The guards that are up belong to whoever touched the page. A raise in the file system that nobody there contains must
// not end up with them: the page would stay half read.
class WithoutGuards {
public:
    WithoutGuards() : guard_(ke::CurrentThread()->Guard) { ke::CurrentThread()->Guard = nullptr; }
    ~WithoutGuards() { ke::CurrentThread()->Guard = guard_; }
    WithoutGuards(const WithoutGuards&) = delete;
    WithoutGuards& operator=(const WithoutGuards&) = delete;

private:
    PNT_GUARD guard_;
};

NTSTATUS ReadFromFile(ControlArea* area, size_t index, ULONG length, IO_STATUS_BLOCK* result)
{
    if (length == 0) return STATUS_END_OF_FILE;
    PMDL const mdl = NewPagingMdl(area, index, length, true);
    if (!mdl) return STATUS_INSUFFICIENT_RESOURCES;
    const WithoutGuards none;
    return io::SendPaging({area->File, IRP_MJ_READ, mdl, OffsetOfPage(index), true}, result);
}

// A page that the file has nothing for, because it has shrunk, shows zeros: whoever mapped it was promised the page.
NTSTATUS FillPage(ControlArea* area, size_t index, ULONG length)
{
    IO_STATUS_BLOCK result{};
    const NTSTATUS status = ReadFromFile(area, index, length, &result);
    const bool isBehindEnd = status == STATUS_END_OF_FILE;
    if (!NT_SUCCESS(status) && !isBehindEnd) return status;
    ZeroTail(area, index, isBehindEnd ? 0 : std::min<ULONG_PTR>(result.Information, length));
    return STATUS_SUCCESS;
}

size_t EndWithin(const ControlArea* area, const PageRange& range) { return std::min(range.End, PagesFor(area->Size)); }

// The first changed page of the range, or the range's end. Under sectionLock.
size_t FirstDirty(const ControlArea* area, const PageRange& range)
{
    const size_t end = EndWithin(area, range);
    size_t index = std::min(range.First, end);
    while (index < end && !area->Pages[index].Dirty) ++index;
    return index;
}

// One past the run that begins at a changed page. Under sectionLock.
size_t RunEnd(const ControlArea* area, const PageRange& range, size_t first)
{
    const size_t end = std::min(EndWithin(area, range), first + MaximumRun);
    size_t index = first + 1;
    while (index < end && area->Pages[index].Dirty && !area->Pages[index].Writing) ++index;
    return index;
}

enum class Claim { None, Busy, Run };

// Takes a run for writing: from now on a change makes its page dirty again. Busy if its first page is being written.
Claim ClaimRun(ControlArea* area, const PageRange& range, PageRange* run)
{
    const SectionGuard hold(sectionLock);
    run->First = FirstDirty(area, range);
    if (run->First == EndWithin(area, range)) return Claim::None;
    if (area->Pages[run->First].Writing) return Claim::Busy;
    run->End = RunEnd(area, range, run->First);
    for (size_t index = run->First; index < run->End; ++index) {
        area->Pages[index].Dirty = false;
        area->Pages[index].Writing = true;
    }
    ProtectInViews(area, *run, PROT_READ);
    return Claim::Run;
}

void EndRun(ControlArea* area, const PageRange& run, NTSTATUS status)
{
    {
        const SectionGuard hold(sectionLock);
        for (size_t index = run.First; index < run.End; ++index) {
            area->Pages[index].Writing = false;
            if (!NT_SUCCESS(status)) area->Pages[index].Dirty = true;
        }
    }
    area->Changed.Raise();
}

bool IsWriting(ControlArea* area, const PageRange& range)
{
    const SectionGuard hold(sectionLock);
    for (size_t index = range.First; index < std::min(range.End, area->Pages.size()); ++index)
        if (area->Pages[index].Writing) return true;
    return false;
}

void AwaitWrites(ControlArea* area, const PageRange& range)
{
    area->Changed.Await([&] { return !IsWriting(area, range); });
}

// The bytes of the run that belong to the file.
ULONG RunLength(ControlArea* area, const PageRange& run)
{
    const SectionGuard hold(sectionLock);
    return static_cast<ULONG>(std::min(area->Size, OffsetOfPage(run.End)) - OffsetOfPage(run.First));
}

NTSTATUS WriteRun(ControlArea* area, const PageRange& run, WriteFor purpose, ULONG length)
{
    PMDL const mdl = NewPagingMdl(area, run.First, length, false);
    if (!mdl) return STATUS_INSUFFICIENT_RESOURCES;
    IO_STATUS_BLOCK written{};
    const bool synchronous = purpose == WriteFor::Flush;
    return io::SendPaging({area->File, IRP_MJ_WRITE, mdl, OffsetOfPage(run.First), synchronous}, &written);
}

// False for a page that is locked. Under sectionLock.
bool PurgePage(ControlArea* area, Page* page)
{
    // A page that is being read is not there yet; its reader, who may wait for a lock of this thread's, reads again.
    if (page->State == PageState::Reading) page->Stale = true;
    if (page->State != PageState::Present) return true;
    if (page->Pins || page->Writing) return false;
    *page = {};
    --area->PresentPages;
    return true;
}

// Under sectionLock.
bool PurgePages(ControlArea* area, PageRange range)
{
    range.End = std::min(range.End, area->Pages.size());
    bool all = true;
    size_t start = range.First; // of the pages that have been dropped in a row
    for (size_t index = range.First; index < range.End; ++index) {
        if (PurgePage(area, &area->Pages[index])) continue;
        all = false;
        ProtectInViews(area, {start, index}, PROT_NONE);
        start = index + 1;
    }
    ProtectInViews(area, {start, range.End}, PROT_NONE);
    return all;
}

bool IsKept(const Page& page, bool dirtyToo) { return page.Pins || page.Writing || (page.Dirty && !dirtyToo); }

} // namespace

NTSTATUS ReadPage(ControlArea* area, size_t index)
{
    ULONG length;
    {
        const SectionGuard hold(sectionLock);
        length = ReadLength(area, index);
    }
    const NTSTATUS status = FillPage(area, index, length);
    {
        const SectionGuard hold(sectionLock);
        Page& page = area->Pages[index];
        const bool there = NT_SUCCESS(status) && !page.Stale;
        page.State = there ? PageState::Present : PageState::Absent;
        page.Stale = false;
        page.Reader = nullptr;
        area->PresentPages += there;
    }
    area->Changed.Raise();
    return status;
}

void AwaitRead(ControlArea* area, size_t index)
{
    area->Changed.Await([&] {
        const SectionGuard hold(sectionLock);
        return area->Pages[index].State != PageState::Reading;
    });
}

PageRange RangeOf(const ControlArea* area, const LARGE_INTEGER* offset, ULONGLONG length)
{
    const SectionGuard hold(sectionLock);
    const size_t all = area->Pages.size();
    if (!offset) return {0, all};
    const auto start = static_cast<ULONGLONG>(offset->QuadPart);
    const size_t first = std::min<ULONGLONG>(start >> PAGE_SHIFT, all);
    if (length == 0 || start + length < start) return {first, all};
    return {first, std::min<ULONGLONG>((start + length - 1) / PAGE_SIZE + 1, all)};
}

bool WriteNextRun(ControlArea* area, PageRange* range, WriteFor purpose, IO_STATUS_BLOCK* result)
{
    PageRange run;
    for (Claim claim = ClaimRun(area, *range, &run); claim != Claim::Run; claim = ClaimRun(area, *range, &run)) {
        if (claim == Claim::None) return false;
        AwaitWrites(area, {run.First, run.First + 1});
    }
    const ULONG length = RunLength(area, run);
    const NTSTATUS status = WriteRun(area, run, purpose, length);
    EndRun(area, run, status);
    if (NT_SUCCESS(status))
        result->Information += length;
    else if (NT_SUCCESS(result->Status))
        result->Status = status;
    range->First = run.End;
    return true;
}

LONGLONG EndOfNextRun(ControlArea* area, const PageRange& range)
{
    const SectionGuard hold(sectionLock);
    const size_t first = FirstDirty(area, range);
    if (first == EndWithin(area, range)) return 0;
    return std::min(area->Size, OffsetOfPage(RunEnd(area, range, first)));
}

void FlushRange(ControlArea* area, PageRange range, IO_STATUS_BLOCK* result)
{
    *result = {{STATUS_SUCCESS}, 0};
    fsrtl::FlushAcquisition acquisition(area->File);
    if (!NT_SUCCESS(acquisition.Status())) {
        result->Status = acquisition.Status();
        return;
    }
    const PageRange whole = range;
    while (WriteNextRun(area, &range, WriteFor::Flush, result)) {}
    AwaitWrites(area, whole); // of others, who found these pages changed first
}

bool PurgeRange(ControlArea* area, PageRange range)
{
    const SectionGuard hold(sectionLock);
    return PurgePages(area, range);
}

bool DropUnused(ControlArea* area, bool dirtyToo)
{
    const SectionGuard hold(sectionLock);
    if (HasUsers(area)) return false;
    for (const Page& page : area->Pages)
        if (IsKept(page, dirtyToo)) return false;
    return PurgePages(area, {0, SIZE_MAX});
}

} // namespace nthost::mm
