// A touch of a view's page that is not there, or that is not writable yet. Runs inside the fault handler, on the thread
// that touched: its own locks in the file system are its own there too. Relies on sectionLock, which nobody holds while
// he touches a view.
#include "mm/page_fault.h"

#include <sys/mman.h>

#include <nthost/check.h>

#include "check/fatal.h"
#include "ke/schedule_point.h"
#include "ke/lock_order.h"
#include "check/text.h"
#include "ke/thread.h"
#include "mm/pages.h"
#include "mm/view.h"

namespace nthost::mm {

namespace {

enum class Next { Done, Read, Await };

// What a look at the page under the lock has shown.
struct Step {
    Next Kind;
    NTSTATUS Status = STATUS_SUCCESS; // of Done
    ControlArea* Area = nullptr;      // else, held
    size_t Index = 0;
};

// A changed page needs no further notice of its changes.
void OpenPage(const View* view, size_t index, bool write)
{
    Page& page = view->Area->Pages[index];
    page.Dirty |= write;
    const int protection = PROT_READ | (view->Writable && page.Dirty ? PROT_WRITE : 0);
    void* const at = reinterpret_cast<void*>(view->Base + (index - view->FirstPage) * PAGE_SIZE);
    if (mprotect(at, PAGE_SIZE, protection) != 0) Fatal("page %p of a view cannot be opened", at);
}

void RefuseOwnRead(const Page& page, const void* address)
{
    if (page.Reader == ke::CurrentThread())
        Fatal("page %p is touched by the thread that reads it: a paging request's buffer is its MDL", address);
}

Step LookAt(void* address, bool write)
{
    const SectionGuard hold(sectionLock);
    const View* const view = FindView(ke::CurrentThread()->ActsFor, address);
    if (!view) return {Next::Done, STATUS_NOT_MAPPED_VIEW};
    if (!(write ? view->Writable : view->Readable)) return {Next::Done, STATUS_ACCESS_VIOLATION};
    ControlArea* const area = view->Area;
    const size_t index = view->FirstPage + (reinterpret_cast<uintptr_t>(address) - view->Base) / PAGE_SIZE;
    Page& page = area->Pages[index];
    if (page.State == PageState::Present) {
        OpenPage(view, index, write);
        return {Next::Done};
    }
    ++area->Holds;
    if (page.State == PageState::Reading) {
        RefuseOwnRead(page, address);
        return {Next::Await, STATUS_SUCCESS, area, index};
    }
    page.State = PageState::Reading;
    page.Reader = ke::CurrentThread();
    return {Next::Read, STATUS_SUCCESS, area, index};
}

void CheckLevel(const void* address)
{
    const KIRQL level = ke::CurrentThread()->Irql;
    if (NTHOST_CHECKS && level > APC_LEVEL)
        ReportFinding("page-fault-above-apc-level", Format("view address %p touched at IRQL %u", address, level));
}

} // namespace

NTSTATUS ResolvePageFault(void* address, bool write)
{
    if (!AnyViews()) return STATUS_NOT_MAPPED_VIEW;
    ke::SwitchPoint("a page fault");
    for (;;) {
        const Step step = LookAt(address, write);
        if (step.Kind == Next::Done) return step.Status;
        const AreaHold hold(step.Area);
        CheckLevel(address);
        // Whoever reads an absent page in might as well have had to wait for another who does.
        if (NTHOST_CHECKS) NoteLockOrder(ke::CurrentThread(), step.Area);
        if (step.Kind == Next::Await) {
            AwaitRead(step.Area, step.Index);
            continue; // what has become of it is seen by another look
        }
        const PageRead read(step.Area);
        if (const NTSTATUS status = ReadPage(step.Area, step.Index); !NT_SUCCESS(status)) return STATUS_IN_PAGE_ERROR;
    }
}

} // namespace nthost::mm
