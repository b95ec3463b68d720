// What passes between the test driver, which is a kernel image, and the test, which is not: one control request whose
// input is the address of an Exercise. Both read it in place.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif
#include <ntifs.h>

#define EXERCISE_DEVICE L"\\Device\\Exerciser"
#define IOCTL_EXERCISE  0x22c003u // METHOD_NEITHER

enum ExerciseCase {
    ExerciseRaise,       // raises Status under a guard of its own
    ExerciseFault,       // reads Address under a guard
    ExerciseThroughHost, // guard, Call(), termination handler, raise
    ExerciseNotMine,     // an inner filter refuses, an outer one takes it
    ExerciseGoOn,        // the filter mends by Call() and lets the instruction run again
    ExerciseInFilter,    // a filter raises itself
    ExerciseUnguarded,   // raises Status with no guard in the image
    ExerciseRegisters,   // sixteen sums held across a guarded Call()
    ExercisePrint,       // DbgPrint with arguments of all kinds
    ExerciseThread,      // a system thread of the image, with its alignment, ends by a raise that it guards
    ExerciseLeak,        // leaves a block of pool behind
    ExerciseDeepStack,   // uses Address bytes of stack
    ExerciseIrql         // reads the IRQL in place: Info[0], with a spin lock held Info[1], and after a write Value
};

typedef struct Exercise {
    ULONG Case;
    NTSTATUS Status;
    void* Address;
    void(NTAPI* Call)(void* argument); // the test's
    void* Argument;

    NTSTATUS Caught; // what a handler of the image got
    ULONG64 Info[2]; // parameters of the exception record
    ULONG Steps;     // bits: 1 behind the raise, 2 filter, 4 handler, 8 termination handler, 16 inner filter
    ULONG64 Value;
} Exercise;

#ifdef __cplusplus
}
#endif
