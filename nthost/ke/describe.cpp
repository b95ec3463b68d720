// What reports say about the current thread. Relies on no lock: another thread may be stuck with it.
#include "ke/describe.h"

#include "check/fatal.h"
#include "check/stack.h"
#include "check/text.h"
#include "ke/thread.h"

namespace nthost::ke {

namespace {

const char* KindText(HeldLock::Kind kind)
{
    switch (kind) {
    case HeldLock::Kind::Resource: return "resource";
    case HeldLock::Kind::SpinLock: return "spin lock";
    case HeldLock::Kind::Mutex: return "mutex";
    case HeldLock::Kind::FastMutex: return "fast mutex";
    case HeldLock::Kind::GuardedMutex: return "guarded mutex";
    }
    return "lock";
}

// Straight from the record: draining what others posted takes a lock.
void DescribeHeld(const _ETHREAD& thread, std::string& text)
{
    for (const HeldLock& held : thread.Held)
        text += Format("  holds %s %p shared %u exclusive %u, taken at %s\n", KindText(held.LockKind), held.Address,
                       held.Shared, held.Exclusive, FrameText(held.Where).c_str());
}

std::string Lines()
{
    const _ETHREAD* const thread = ke::CurrentThreadOrNull();
    if (!thread) return "";
    std::string text = Format("  thread %zu of process %zu (%s), IRQL %u, critical regions %u\n",
                              reinterpret_cast<size_t>(thread->Id), reinterpret_cast<size_t>(thread->Process->Id),
                              thread->Process->Name.c_str(), thread->Irql, thread->ApcDisable);
    if (thread->Calls) text += Format("  in %s, request %p\n", thread->Calls->What, thread->CurrentIrp);
    DescribeHeld(*thread, text);
    return text;
}

// Who did it; a request only by its address, since it may be complete and gone.
std::string Place()
{
    const _ETHREAD* const thread = ke::CurrentThreadOrNull();
    if (!thread) return "";
    std::string place = Format(" [thread %zu", reinterpret_cast<size_t>(thread->Id));
    if (thread->Calls) place += Format(", in %s", thread->Calls->What);
    if (thread->CurrentIrp) place += Format(", request %p", thread->CurrentIrp);
    return place + "]";
}

constexpr ThreadTexts Texts = {Lines, Place};

} // namespace

void DescribeThreadsInReports() { SetThreadTexts(&Texts); }

} // namespace nthost::ke
