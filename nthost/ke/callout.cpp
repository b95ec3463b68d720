// Compares the thread's state around a call into driver code. What was left behind is put back, so that one mistake is
// one finding; locks stay as they are.
#include "ke/callout.h"

#include "check/text.h"
#include "ke/held.h"

namespace nthost {

std::string HeldLocksText()
{
    std::string text;
    for (const HeldLock& held : ke::HeldBy(ke::CurrentThread())) text += " " + HexText(held.Address);
    return text.empty() ? " none" : text;
}

ThreadState CaptureThreadState()
{
    _ETHREAD* const thread = ke::CurrentThread();
    return {thread->Irql, thread->ApcDisable, thread->GuardedRegions, thread->TopLevelIrp, ke::HeldBy(thread).size()};
}

void CompareThreadState(const ThreadState& before, const char* what)
{
    _ETHREAD* const thread = ke::CurrentThread();
    if (thread->Irql != before.Irql)
        ReportFinding("irql-changed", Format("%s: IRQL %u before, %u after", what, before.Irql, thread->Irql));
    if (thread->ApcDisable != before.ApcDisable)
        ReportFinding("critical-region-left-open",
                      Format("%s: critical regions %u before, %u after", what, before.ApcDisable, thread->ApcDisable));
    if (thread->GuardedRegions != before.GuardedRegions)
        ReportFinding("guarded-region-left-open", Format("%s: guarded regions %u before, %u after", what,
                                                         before.GuardedRegions, thread->GuardedRegions));
    if (thread->TopLevelIrp != before.TopLevelIrp)
        ReportFinding("top-level-irp-left",
                      Format("%s: %p before, %p after", what, before.TopLevelIrp, thread->TopLevelIrp));
    if (const size_t held = ke::HeldBy(thread).size(); held != before.HeldCount)
        ReportFinding("lock-held-at-return",
                      Format("%s: %zu locks before, %zu after:", what, before.HeldCount, held) + HeldLocksText());
    RestoreThreadState(before);
}

void RestoreThreadState(const ThreadState& before)
{
    _ETHREAD* const thread = ke::CurrentThread();
    ke::SetIrql(thread, before.Irql);
    thread->ApcDisable = before.ApcDisable;
    thread->GuardedRegions = before.GuardedRegions;
    thread->TopLevelIrp = before.TopLevelIrp;
}

void ReturnToCall(_ETHREAD* thread, const void* frame)
{
    while (thread->Calls && thread->Calls < frame) thread->Calls = thread->Calls->Outer;
    if (!thread->Calls) return;
    thread->PreviousMode = KernelMode;
    thread->CurrentIrp = thread->Calls->CurrentIrp;
}

} // namespace nthost
