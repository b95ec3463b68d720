// A driver that does what a driver may, one thing a request, so that tests see how nthost carries an image: exceptions
// of all kinds, registers, threads, printing.

#include "exercise.h"

namespace {

// What is caught must come from a call that is not inlined.
__attribute__((noinline)) void Raise(NTSTATUS status) { ExRaiseStatus(status); }
__attribute__((noinline)) ULONG64 Read(const volatile ULONG64* address) { return *address; }

int Note(Exercise* exercise, const EXCEPTION_POINTERS* exception, ULONG step, int verdict)
{
    exercise->Steps |= step;
    exercise->Caught = static_cast<NTSTATUS>(exception->ExceptionRecord->ExceptionCode);
    for (unsigned i = 0; i < 2 && i < exception->ExceptionRecord->NumberParameters; ++i)
        exercise->Info[i] = exception->ExceptionRecord->ExceptionInformation[i];
    return verdict;
}

void RaiseOwn(Exercise* exercise)
{
    __try {
        Raise(exercise->Status);
        exercise->Steps |= 1;
    } __except (Note(exercise, GetExceptionInformation(), 2, EXCEPTION_EXECUTE_HANDLER)) {
        exercise->Steps |= 4;
    }
}

void Fault(Exercise* exercise)
{
    __try {
        exercise->Value = Read(static_cast<ULONG64*>(exercise->Address));
        exercise->Steps |= 1;
    } __except (Note(exercise, GetExceptionInformation(), 2, EXCEPTION_EXECUTE_HANDLER)) {
        exercise->Steps |= 4;
    }
}

__attribute__((noinline)) void CallWithEnd(Exercise* exercise)
{
    __try {
        exercise->Call(exercise->Argument);
        exercise->Steps |= 1;
    } __finally {
        exercise->Steps |= 8;
    }
}

void ThroughHost(Exercise* exercise)
{
    __try {
        CallWithEnd(exercise);
    } __except (Note(exercise, GetExceptionInformation(), 2, EXCEPTION_EXECUTE_HANDLER)) {
        exercise->Steps |= 4;
    }
}

__attribute__((noinline)) void Refuse(Exercise* exercise)
{
    __try {
        Raise(exercise->Status);
    } __except (Note(exercise, GetExceptionInformation(), 16, EXCEPTION_CONTINUE_SEARCH)) {
        exercise->Steps |= 1;
    }
}

void NotMine(Exercise* exercise)
{
    __try {
        Refuse(exercise);
    } __except (Note(exercise, GetExceptionInformation(), 2, EXCEPTION_EXECUTE_HANDLER)) {
        exercise->Steps |= 4;
    }
}

int Mend(Exercise* exercise)
{
    exercise->Call(exercise->Argument);
    return EXCEPTION_CONTINUE_EXECUTION;
}

void GoOn(Exercise* exercise)
{
    __try {
        exercise->Value = Read(static_cast<ULONG64*>(exercise->Address));
        exercise->Steps |= 1;
    } __except (Mend(exercise)) {
        exercise->Steps |= 4;
    }
}

__attribute__((noinline)) int RaiseInstead(Exercise* exercise)
{
    exercise->Steps |= 16;
    Raise(STATUS_ACCESS_DENIED);
    return EXCEPTION_EXECUTE_HANDLER;
}

__attribute__((noinline)) void BadFilter(Exercise* exercise)
{
    __try {
        Raise(exercise->Status);
    } __except (RaiseInstead(exercise)) {
        exercise->Steps |= 1;
    }
}

void InFilter(Exercise* exercise)
{
    __try {
        BadFilter(exercise);
    } __except (Note(exercise, GetExceptionInformation(), 2, EXCEPTION_EXECUTE_HANDLER)) {
        exercise->Steps |= 4;
    }
}

// Sums in general and in vector registers; the caller of the guard must find its own again.
__attribute__((noinline)) bool Guarded(Exercise* exercise)
{
    __try {
        exercise->Call(exercise->Argument);
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        return false;
    }
    return true;
}

void Registers(Exercise* exercise)
{
    double vector[10];
    ULONG64 general[8];
    const volatile double* const seed = static_cast<const volatile double*>(exercise->Address);
    for (unsigned i = 0; i < 10; ++i) vector[i] = seed[i] * 3;
    for (unsigned i = 0; i < 8; ++i) general[i] = static_cast<ULONG64>(seed[i]) * 5;
    exercise->Steps |= Guarded(exercise) ? 1 : 4;
    ULONG64 sum = 0;
    for (unsigned i = 0; i < 10; ++i) sum += static_cast<ULONG64>(vector[i]);
    for (unsigned i = 0; i < 8; ++i) sum += general[i];
    exercise->Value = sum;
}

void Print(Exercise* exercise)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"name");
    DbgPrint("%d %I64x %s %wZ %u %p\n", -1, 0x123456789abcdefull, "text", &name, exercise->Case, exercise->Address);
}

VOID NTAPI ThreadMain(PVOID context)
{
    auto* const exercise = static_cast<Exercise*>(context);
    alignas(16) volatile UCHAR local[16] = {};
    exercise->Value = reinterpret_cast<ULONG64>(&local[0]) % 16;
    RaiseOwn(exercise);
    PsTerminateSystemThread(STATUS_SUCCESS);
}

NTSTATUS Thread(Exercise* exercise)
{
    HANDLE handle;
    const NTSTATUS status =
        PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, ThreadMain, exercise);
    if (!NT_SUCCESS(status)) return status;
    PVOID thread;
    ObReferenceObjectByHandle(handle, SYNCHRONIZE, nullptr, KernelMode, &thread, nullptr);
    ZwClose(handle);
    KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr);
    ObDereferenceObject(thread);
    return STATUS_SUCCESS;
}

__attribute__((noinline)) ULONG64 Deep(ULONG64 bytes)
{
    volatile UCHAR room[512];
    room[0] = static_cast<UCHAR>(bytes);
    asm volatile("" ::"r"(&room[0]) : "memory"); // all of it, not the one byte
    return bytes <= sizeof room ? reinterpret_cast<ULONG64>(PsGetCurrentThreadId())
                                : Deep(bytes - sizeof room) + room[0];
}

// The last two go by instructions that nobody replaces.
void Irql(Exercise* exercise)
{
    static KSPIN_LOCK lock;
    exercise->Info[0] = KeGetCurrentIrql();
    const KIRQL before = KeAcquireSpinLockRaiseToDpc(&lock);
    exercise->Info[1] = KeGetCurrentIrql();
    KeReleaseSpinLock(&lock, before);
    ULONG64 irql = APC_LEVEL;
    asm volatile("movq %1, %%cr8\n\tmovq %%cr8, %%r9\n\tmovq %%r9, %0" : "=r"(exercise->Value) : "r"(irql) : "r9");
    irql = before;
    asm volatile("movq %0, %%cr8" ::"r"(irql));
}

} // namespace

extern "C" __attribute__((noinline)) void ExerciserLeak(Exercise* exercise)
{
    exercise->Address = ExAllocatePoolWithTag(NonPagedPool, 24, 'kaeL');
}

namespace {

NTSTATUS Run(Exercise* exercise)
{
    switch (exercise->Case) {
    case ExerciseRaise: RaiseOwn(exercise); break;
    case ExerciseFault: Fault(exercise); break;
    case ExerciseThroughHost: ThroughHost(exercise); break;
    case ExerciseNotMine: NotMine(exercise); break;
    case ExerciseGoOn: GoOn(exercise); break;
    case ExerciseInFilter: InFilter(exercise); break;
    case ExerciseUnguarded: Raise(exercise->Status); break;
    case ExerciseRegisters: Registers(exercise); break;
    case ExercisePrint: Print(exercise); break;
    case ExerciseThread: return Thread(exercise);
    case ExerciseLeak: ExerciserLeak(exercise); break;
    case ExerciseDeepStack: exercise->Value = Deep(reinterpret_cast<ULONG64>(exercise->Address)); break;
    case ExerciseIrql: Irql(exercise); break;
    default: return STATUS_INVALID_PARAMETER;
    }
    return STATUS_SUCCESS;
}

NTSTATUS Complete(PIRP irp, NTSTATUS status)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = 0;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS NTAPI OpenOrClose(PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_SUCCESS); }

NTSTATUS NTAPI Control(PDEVICE_OBJECT, PIRP irp)
{
    const PIO_STACK_LOCATION location = irp->Tail.Overlay.CurrentStackLocation;
    return Complete(irp, Run(static_cast<Exercise*>(location->Parameters.DeviceIoControl.Type3InputBuffer)));
}

PDEVICE_OBJECT g_device;

VOID NTAPI Unload(PDRIVER_OBJECT) { IoDeleteDevice(g_device); }

} // namespace

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, EXERCISE_DEVICE);
    driver->DriverUnload = Unload;
    driver->MajorFunction[IRP_MJ_CREATE] = OpenOrClose;
    driver->MajorFunction[IRP_MJ_CLEANUP] = OpenOrClose;
    driver->MajorFunction[IRP_MJ_CLOSE] = OpenOrClose;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = Control;
    return IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &g_device);
}
