// What outlives the users of sections, and who puts an end to it: the modified-page writer, the trimmer, the ends of
// processes and of the host. Takes sectionLock for looks and decisions; writes without it.
#include <nthost/sections.h>

#include <cstring>

#include <nthost/debug.h>
#include <nthost/process.h>

#include "check/fatal.h"
#include "check/text.h"
#include "fsrtl/acquire.h"
#include "ke/exceptions.h"
#include "mm/pages.h"
#include "mm/view.h"
#include "ke/guarded.h"
#include "mm/memory.h"
#include "mm/page_fault.h"
#include "ps/threads.h"

namespace nthost::mm {

namespace {

constexpr PageRange Everything{0, SIZE_MAX};

size_t DirtyPages(const ControlArea* area)
{
    size_t count = 0;
    for (const Page& page : area->Pages) count += page.Dirty;
    return count;
}

SectionUse UseOf(PFILE_OBJECT file, AreaKind kind)
{
    const AreaHold area(HoldArea(file->SectionObjectPointer, kind));
    if (!area) return {};
    const SectionGuard hold(sectionLock);
    return {area->Size, area->PresentPages, DirtyPages(area.Get()), area->Sections,
            static_cast<unsigned>(area->Views.size())};
}

enum class IfDirty { Keep, Drop };

// True if the area, which the caller holds, goes with the caller's hold.
bool Trim(ControlArea* area, IfDirty ifDirty, NTSTATUS* written)
{
    IO_STATUS_BLOCK result;
    FlushRange(area, Everything, &result);
    *written = result.Status;
    return DropUnused(area, ifDirty == IfDirty::Drop);
}

struct Writing {
    ControlArea* Area;
    IO_STATUS_BLOCK Result;
};

// At APC_LEVEL, where the writer must not be interrupted; with its mark as the top-level request, since the file
// system's lock is held for it.
bool WriteAsModifiedWriter(ControlArea* area, PageRange* range, IO_STATUS_BLOCK* result)
{
    KIRQL before;
    KeRaiseIrql(APC_LEVEL, &before);
    IoSetTopLevelIrp(reinterpret_cast<PIRP>(FSRTL_MOD_WRITE_TOP_LEVEL_IRP));
    const bool wrote = WriteNextRun(area, range, WriteFor::ModifiedWriter, result);
    IoSetTopLevelIrp(nullptr);
    KeLowerIrql(before);
    return wrote;
}

void EndViews(PEPROCESS process)
{
    UnmapViewsOf(process);
    TrimSections();
}

VOID NTAPI ModifiedPageWriter(PVOID context)
{
    auto* const writing = static_cast<Writing*>(context);
    PageRange range = Everything;
    while (const LONGLONG end = EndOfNextRun(writing->Area, range)) {
        const fsrtl::ModWriteAcquisition acquisition(writing->Area->File, end);
        if (!NT_SUCCESS(acquisition.Status())) {
            if (NT_SUCCESS(writing->Result.Status)) writing->Result.Status = acquisition.Status();
            return;
        }
        // Not beyond the end that the file system has agreed to.
        PageRange agreed{range.First, PagesFor(end)};
        if (WriteAsModifiedWriter(writing->Area, &agreed, &writing->Result)) range.First = agreed.First;
    }
}

} // namespace

void Boot()
{
    ke::AddFaultHook(ResolvePageFault);
    ps::SetProcessExitHook(EndViews);
}

void EndSections(std::vector<std::string>* leaks)
{
    for (const std::string& line : UnmapViewsOf(nullptr)) leaks->push_back(line);
    const ActAs system(PsInitialSystemProcess, KernelMode);
    for (ControlArea* idle : HoldIdleAreas()) {
        const AreaHold area(idle);
        NTSTATUS written;
        Trim(idle, IfDirty::Drop, &written);
        if (NT_SUCCESS(written)) continue;
        leaks->push_back("changes of mapped file " + ToUtf8(&area->File->FileName) +
                         " could not be written: " + StatusName(written));
    }
    ForgetAreas();
}

} // namespace nthost::mm

namespace nthost {

using namespace mm;

SectionUse DataSectionOf(PFILE_OBJECT file) { return UseOf(file, AreaKind::Data); }

SectionUse ImageSectionOf(PFILE_OBJECT file) { return UseOf(file, AreaKind::Image); }

NTSTATUS StepModifiedPageWriter(PFILE_OBJECT file)
{
    const AreaHold area(HoldArea(file->SectionObjectPointer, AreaKind::Data));
    if (!area) return STATUS_SUCCESS;
    Writing writing{area.Get(), {{STATUS_SUCCESS}, 0}};
    PETHREAD thread;
    const NTSTATUS status =
        ps::StartSystemThread(PsInitialSystemProcess, ModifiedPageWriter, &writing, ps::StartedBy::Host, &thread);
    if (!NT_SUCCESS(status)) return status;
    KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr);
    ObDereferenceObject(thread);
    return writing.Result.Status;
}

unsigned TrimSections()
{
    const ActAs system(PsInitialSystemProcess, KernelMode);
    unsigned trimmed = 0;
    for (ControlArea* idle : HoldIdleAreas()) {
        const AreaHold area(idle);
        NTSTATUS written;
        trimmed += Trim(idle, IfDirty::Keep, &written);
    }
    return trimmed;
}

NTSTATUS GuardedCopy(void* to, const void* from, size_t length)
{
    return ke::Guarded([&] { memcpy(to, from, length); });
}

} // namespace nthost
