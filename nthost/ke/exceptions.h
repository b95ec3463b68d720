// Faults, and where exceptions go: to the innermost guard, unless somebody above knows frames that stand nearer.
#pragma once

#include <ucontext.h>

#include <ntifs.h>

namespace nthost::ke {

// Asked on every fault, before guards. STATUS_SUCCESS: the page is there now and the access can be tried again.
// STATUS_NOT_MAPPED_VIEW: the address is not the hook's own. Else the exception's status. Runs on the faulting thread,
// inside the signal handler, which is sound because the fault is synchronous: it may block and may call drivers. A hook
// lets an address that is not its own pass quickly, and takes no lock that the faulting code may hold.
using FaultHook = NTSTATUS (*)(void* address, bool write);

// At most eight, for the life of the process; adding one twice does nothing.
void AddFaultHook(FaultHook hook);

// Takes SIGSEGV and SIGBUS; gives them back.
void TakeFaults();
void ReturnFaults();

struct Exception {
    NTSTATUS Code;
    unsigned ParameterCount; // of an access violation: 0 read, 1 write, 8 execute; the address
    ULONG64 Parameters[2];
    const ucontext_t* Fault; // null for a raise
};

struct ExceptionHooks {
    // Whether the frames of images can be on a stack; nothing else is asked otherwise.
    bool (*Wanted)();
    // Carries out an instruction that only a kernel can; false if it is none that is known.
    bool (*Emulate)(ucontext_t* fault, const void* address);
    // Returns if nobody on the stack handles the exception.
    void (*Dispatch)(const Exception& exception);
};
// Once, before threads run driver code.
void SetExceptionHooks(const ExceptionHooks* hooks);

// Ends everything that was called since the guard was entered.
[[noreturn]] void JumpToGuard(_ETHREAD* thread, PNT_GUARD guard, NTSTATUS code);

} // namespace nthost::ke
