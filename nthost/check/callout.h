// Every call from nthost into driver or plugin code (entry, dispatch, callbacks, cancel, completion, work items, thread
// starts, unload) goes through CallDriver, so that a build can switch stacks or calling conventions here, and so that
// the checks can compare the thread's state before and after.
#pragma once

#include <type_traits>

#include "ke/thread.h"
#include <nthost/check.h>

namespace nthost {

// What must be the same after a dispatch routine, work item or callback returns: IRQL, critical and guarded
// regions, top-level request, locks held.
enum class MustRestore {
    Everything,
    Nothing // DriverEntry of another, acquire and release callbacks, a thread's start routine
};

struct ThreadState {
    KIRQL Irql;
    uint32_t ApcDisable;
    uint32_t GuardedRegions;
    PIRP TopLevelIrp;
    size_t HeldCount;
};

ThreadState CaptureThreadState();
// Reports "irql-changed", "critical-region-left-open", "guarded-region-left-open", "top-level-irp-left",
// "lock-held-at-return", naming `what`.
void CompareThreadState(const ThreadState& before, const char* what);

template <typename Routine, typename... Args>
auto CallDriver(MustRestore must, const char* what, Routine routine, Args... args)
{
    struct Depth {
        _ETHREAD* Thread = ke::CurrentThread();
        KPROCESSOR_MODE Mode = Thread->PreviousMode;
        const char* Outer = Thread->DriverCall;
        explicit Depth(const char* call)
        {
            ++Thread->DriverDepth, Thread->PreviousMode = KernelMode, Thread->DriverCall = call;
        }
        ~Depth() { --Thread->DriverDepth, Thread->PreviousMode = Mode, Thread->DriverCall = Outer; }
    } depth(what);
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
