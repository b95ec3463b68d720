// The thread and process records. A thread's own fields are touched by that thread alone, unless a comment says
// otherwise. Both records are bodies of objects (ob/object.h), begin with a dispatcher header and can be waited for.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include <ntifs.h>

namespace nthost {
namespace ob {
class HandleTable;
}
namespace se {
struct Token;
}
namespace ke {
class Record;
struct WaitRecord;
} // namespace ke

// A lock that the current thread holds: what it is, how often, in which mode, since where.
struct HeldLock {
    enum class Kind : uint8_t { Resource, SpinLock, Mutex, FastMutex, GuardedMutex };
    void* Address;
    Kind LockKind;
    uint32_t Shared;    // times held shared
    uint32_t Exclusive; // times held exclusive
    void* Where;        // return address of the first acquisition
};

// A call into driver code that is under way, on the stack of the caller (ke/callout.h).
struct DriverCallRecord {
    DriverCallRecord* Outer;
    const char* What;  // for reports
    size_t ImageStack; // of the thread when it was made
    PIRP CurrentIrp;   // when it was made
};
} // namespace nthost

struct _EPROCESS {
    DISPATCHER_HEADER Header; // signalled when the process has ended
    HANDLE Id;
    std::string Name;
    nthost::ob::HandleTable* Handles; // owned; its own lock
    nthost::se::Token* Token;         // owned
};

struct _ETHREAD {
    DISPATCHER_HEADER Header; // signalled when the thread has ended
    HANDLE Id;
    PEPROCESS Process; // referenced; the process it belongs to
    PEPROCESS ActsFor; // the process whose handles and addresses it uses now
    KPROCESSOR_MODE PreviousMode;
    bool IsSystemThread;
    KIRQL Irql;
    uint32_t ApcDisable;     // nesting of critical regions
    uint32_t GuardedRegions; // of guarded ones
    PIRP TopLevelIrp;        // a request or one of the FSRTL_..._TOP_LEVEL_IRP markers
    PNT_GUARD Guard;         // innermost
    NTSTATUS ExitStatus;
    std::vector<nthost::HeldLock> Held; // locks held now, in order of acquisition
    std::vector<const void*> AtWork;    // what else others wait for until it is done (ke/lock_order.h)
    bool TakesWork;                     // a driver's own thread: who takes a permit, takes work from its semaphore
    const void* ReleasedSemaphore;      // the last that the innermost dispatch routine released; with checks on
    size_t ImageStack;                  // in frames of images, when one of them last called the kernel
    nthost::DriverCallRecord* Calls;    // the innermost call into driver code that is under way on this thread
    uint32_t Closing;                   // cleanups and closes among them; no fault is injected there
    PIRP CurrentIrp;                    // innermost request whose dispatch routine runs here
    nthost::ke::Record* Record;         // what it does, for observers (ke/recorder.h)
    uint64_t CleanupEnded;          // when, while the kernel is between a cleanup and the close that follows; else 0
    std::atomic<uint32_t> WakeWord; // the wait core parks on it; changed by wakers
    bool Spins;                     // its last wait was short: the next begins awake
    PKSTART_ROUTINE StartRoutine;
    PVOID StartContext;
    // Requests that this thread issued and that are not complete: the I/O manager's, under its own lock.
    LIST_ENTRY IrpList;
    std::atomic<LONG> OutstandingIrps;
    // Locks that other threads released for this one and that still stand in Held: under the lock of the list of
    // threads; the flag is read without it (ke/held.h).
    std::vector<void*> Disowned;
    std::atomic<bool> HasDisowned;
    LIST_ENTRY LiveLink; // in the list of running threads (ke/running.h)
    // Under the dispatcher lock:
    nthost::ke::WaitRecord* Wait;    // what it is blocked in
    LIST_ENTRY Apcs[MaximumMode];    // queued, by mode (ModeIndex)
    bool Alerted[MaximumMode];       // by the mode of who alerted it
    bool ApcsClosed;                 // it ends
    std::atomic<bool> HasKernelApcs; // read without the lock
    bool UserApcPending;             // the thread's own: its queue is run when its service returns to user mode
};

namespace nthost::ke {

// Nearly every routine asks for it, so it is read in place; only SetCurrentThread (ke/current.h) writes it. Initialised
// at compile time, which spares each reader the test for an initialisation on first use.
extern constinit thread_local _ETHREAD* currentThread;

[[noreturn]] void NotAttached();

// Since an image is mapped whose code reads the IRQL in one instruction (image/platform.h): from the base of the gs
// segment, which is otherwise unused here. Keeping it there has a price, so nobody does until then.
inline constinit std::atomic<bool> gsHoldsIrql = false;

inline void SetIrql(_ETHREAD* thread, KIRQL irql)
{
    thread->Irql = irql;
#if NTHOST_MS_ABI
    if (gsHoldsIrql.load(std::memory_order_relaxed)) asm volatile("wrgsbase %0" ::"r"(uint64_t{irql}));
#endif
}

constexpr size_t ModeIndex(KPROCESSOR_MODE mode) { return mode == KernelMode ? 0 : 1; }

// Whether normal kernel APCs stay away: in a critical or guarded region, with a mutex, at APC_LEVEL (fast mutexes).
inline bool AreApcsDisabled(const _ETHREAD* thread)
{
    if (thread->ApcDisable || thread->GuardedRegions) return true;
    for (const HeldLock& held : thread->Held)
        if (held.LockKind == HeldLock::Kind::Mutex) return true;
    return false;
}

// The current thread's record, or null for a thread that is not attached to a process.
inline _ETHREAD* CurrentThreadOrNull() { return currentThread; }

// The same; not being attached is a fatal error of the caller.
inline _ETHREAD* CurrentThread()
{
    _ETHREAD* const thread = currentThread;
    if (!thread) [[unlikely]]
        NotAttached();
    return thread;
}

} // namespace nthost::ke
