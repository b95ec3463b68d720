// For what stands between a driver and code that the driver calls, and holds that code to its manners: the state of the
// current thread before and after, where an exception came from, and calls that count as a driver's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include <ntifs.h>

namespace nthost {

// What a routine must leave as it found it.
struct ThreadState {
    KIRQL Irql;
    uint32_t ApcDisable; // nesting of critical regions
    uint32_t GuardedRegions;
    PIRP TopLevelIrp;
    size_t HeldCount; // locks of the kernel that the thread holds
};

// Of the current thread, which must be attached.
ThreadState CaptureThreadState();
// Puts back all but the locks.
void RestoreThreadState(const ThreadState& before);
// The addresses of the locks that the thread holds; " none" without.
std::string HeldLocksText();

struct ExceptionNote {
    NTSTATUS Code = STATUS_SUCCESS;
    bool IsFault = false; // of an address, and not raised
    bool IsWrite = false;
    const void* Address = nullptr; // that was touched
    std::string Stack;             // one frame a line
};

// While one lives, an exception of the current thread that goes to this guard is noted. It stands outside of what the
// guard encloses, since no destructor in there runs.
class ExceptionWatch {
public:
    ExceptionWatch(PNT_GUARD guard, ExceptionNote* note);
    ~ExceptionWatch();
    ExceptionWatch(const ExceptionWatch&) = delete;
    ExceptionWatch& operator=(const ExceptionWatch&) = delete;

    // For the one who delivers exceptions. Null if nobody watches the guard.
    static ExceptionNote* NoteOf(PNT_GUARD guard);

private:
    ExceptionWatch* outer_;
    PNT_GUARD guard_;
    ExceptionNote* note_;
};

// The body counts as driver code on this thread: its pool blocks are a driver's, and can be made to fail
// (nthost/faults.h).
void RunAsDriver(const std::function<void()>& body);

// "function file:line" as far as known, else "module+offset".
std::string FrameText(void* address);

} // namespace nthost
