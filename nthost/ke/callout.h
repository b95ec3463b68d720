// Every call from nthost into driver or plugin code (entry, dispatch, callbacks, cancel, completion, work items, thread
// starts, unload) goes through CallDriver, so that a build can switch stacks or calling conventions here, and so that
// the checks can compare the thread's state before and after.
#pragma once

#include <type_traits>

#include "ke/schedule_point.h"
#include "ke/thread.h"
#include <nthost/calls.h>
#include <nthost/check.h>

namespace nthost {

// What must be the same after a dispatch routine, work item or callback returns: IRQL, critical and guarded
// regions, top-level request, locks held.
enum class MustRestore {
    Everything,
    Nothing // DriverEntry of another, acquire and release callbacks, a thread's start routine
};

// Reports "irql-changed", "critical-region-left-open", "guarded-region-left-open", "top-level-irp-left",
// "lock-held-at-return", naming `what`.
void CompareThreadState(const ThreadState& before, const char* what);

class DriverCall {
public:
    explicit DriverCall(const char* what)
        : thread_(ke::CurrentThread()),
          mode_(thread_->PreviousMode), record_{thread_->Calls, what, thread_->ImageStack, thread_->CurrentIrp}
    {
        thread_->Calls = &record_;
        thread_->PreviousMode = KernelMode;
        ke::SwitchPoint(what);
    }
    ~DriverCall()
    {
        thread_->Calls = record_.Outer;
        thread_->ImageStack = record_.ImageStack;
        thread_->PreviousMode = mode_;
    }
    DriverCall(const DriverCall&) = delete;
    DriverCall& operator=(const DriverCall&) = delete;

private:
    _ETHREAD* const thread_;
    const KPROCESSOR_MODE mode_;
    DriverCallRecord record_;
};

// An exception goes on in driver code whose frame is at this address: calls further in are over.
void ReturnToCall(_ETHREAD* thread, const void* frame);

template <typename Routine, typename... Args>
auto CallDriver(MustRestore must, const char* what, Routine routine, Args... args)
{
    const DriverCall call(what);
    [[maybe_unused]] ThreadState before{};
    if constexpr (NTHOST_CHECKS) before = CaptureThreadState();
    auto finish = [&] {
        if constexpr (NTHOST_CHECKS)
            if (must == MustRestore::Everything) CompareThreadState(before, what);
    };
    if constexpr (std::is_void_v<decltype(routine(args...))>) {
        routine(args...);
        finish();
    } else {
        auto result = routine(args...);
        finish();
        return result;
    }
}

} // namespace nthost
