// The plans of failures that are armed. A lock guards the list and the counts; a flag keeps it out of the way when no
// plan is armed.
#include <nthost/faults.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "ke/thread.h"

namespace nthost {

namespace {

struct Armed {
    const FaultPlan* Plan;
    std::string Routine;
    unsigned Nth;
    Repeat Repeats;
    Closings OfClosings;
    unsigned Calls;
    unsigned Injected;
};

std::mutex plansLock;
std::vector<Armed> plans;

Armed* Find(const FaultPlan* plan)
{
    for (Armed& armed : plans)
        if (armed.Plan == plan) return &armed;
    return nullptr;
}

bool CountCall(Armed& armed)
{
    ++armed.Calls;
    const bool fails = armed.Repeats == Repeat::Yes ? armed.Calls >= armed.Nth : armed.Calls == armed.Nth;
    armed.Injected += fails;
    return fails;
}

} // namespace

std::atomic<bool> detail::anyFaultArmed;

bool detail::CountForFaults(const char* routine)
{
    const _ETHREAD* const thread = ke::CurrentThreadOrNull();
    if (!thread || !thread->Calls) return false;
    std::lock_guard lock(plansLock);
    bool fails = false;
    for (Armed& armed : plans)
        if (armed.Routine == routine && (!thread->Closing || armed.OfClosings == Closings::Counted))
            fails |= CountCall(armed);
    return fails;
}

FaultPlan::FaultPlan(std::string routine, unsigned n, Repeat repeat, Closings closings)
{
    std::lock_guard lock(plansLock);
    plans.push_back({this, std::move(routine), n, repeat, closings, 0, 0});
    detail::anyFaultArmed = true;
}

FaultPlan::~FaultPlan()
{
    std::lock_guard lock(plansLock);
    std::erase_if(plans, [this](const Armed& armed) { return armed.Plan == this; });
    detail::anyFaultArmed = !plans.empty();
}

unsigned FaultPlan::Calls() const
{
    std::lock_guard lock(plansLock);
    return Find(this)->Calls;
}

unsigned FaultPlan::Injected() const
{
    std::lock_guard lock(plansLock);
    return Find(this)->Injected;
}

unsigned SweepFaults(const std::string& routine, const std::function<void(unsigned n)>& scenario)
{
    for (unsigned n = 1;; ++n) {
        const FaultPlan plan(routine, n);
        scenario(n);
        if (!plan.Injected()) return n - 1;
    }
}

} // namespace nthost
