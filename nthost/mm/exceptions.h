// Where exceptions go: to the innermost guard, unless somebody above knows frames that stand nearer.
#pragma once

#include <ucontext.h>

#include <ntifs.h>

namespace nthost::mm {

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

} // namespace nthost::mm
