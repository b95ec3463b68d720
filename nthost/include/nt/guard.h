// What stands in for __try/__except in a Linux process. A guard is a frame on the current thread's chain; a raised
// status, and a fault on an address, unwind to the innermost guard with longjmp, so no destructor between the
// raise and the guard runs. A raise or a fault with no guard prints the request, the held locks and a stack trace, and
// aborts.
//
//     NT_GUARD guard;
//     if (NtGuardEnter(&guard)) { body(); NtGuardLeave(&guard); }
//     else { /* guard.Code is the status of the exception; the guard is already off the chain */ }
//
// The function that enters must not be inlined into one whose locals the body changes: only objects whose address has
// escaped keep their values across the jump.
#pragma once

#include <setjmp.h>

#include "base.h"

NT_EXTERN_C_BEGIN

typedef struct _NT_GUARD {
    struct _NT_GUARD* Outer;
    NTSTATUS Code;
    KPROCESSOR_MODE PreviousMode; // of the thread at the guard, put back when an exception jumps over nthost's frames
    void* CurrentIrp;             // the same
    void* Calls;                  // the same: calls into driver code
    void* Frame;                  // where on the stack: frames of what the guard encloses lie below
    jmp_buf Context;
} NT_GUARD, *PNT_GUARD;

void NtGuardPush(PNT_GUARD guard);
void NtGuardLeave(PNT_GUARD guard);

// setjmp does not save the signal mask here: the fault handler leaves it alone, and saving would cost a system call.
#define NtGuardEnter(guard) (NtGuardPush(guard), setjmp((guard)->Context) == 0)

NTKERNELAPI DECLSPEC_NORETURN VOID NTAPI ExRaiseStatus(NTSTATUS Status);
NTKERNELAPI DECLSPEC_NORETURN VOID NTAPI ExRaiseAccessViolation(VOID);
NTKERNELAPI DECLSPEC_NORETURN VOID NTAPI ExRaiseDatatypeMisalignment(VOID);

NT_EXTERN_C_END
