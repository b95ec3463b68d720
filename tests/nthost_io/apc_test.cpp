// APC routines of file services: when they are called, by which thread, and when not.
#include "probe.h"

using namespace probe;

namespace {

using IoApc = IoTest;

struct Called {
    int Times = 0;
    PIO_STATUS_BLOCK Block = nullptr;
    NTSTATUS Status = STATUS_NOT_IMPLEMENTED;
    PETHREAD Thread = nullptr;
    KIRQL Irql = HIGH_LEVEL;

    static void NTAPI Routine(PVOID context, PIO_STATUS_BLOCK block, ULONG reserved)
    {
        auto* const called = static_cast<Called*>(context);
        ++called->Times;
        called->Block = block;
        called->Status = block->Status;
        called->Thread = PsGetCurrentThread();
        called->Irql = KeGetCurrentIrql();
        EXPECT_EQ(reserved, 0u);
    }
};

NTSTATUS Control(decltype(NtDeviceIoControlFile)* service, HANDLE file, Called* called, IO_STATUS_BLOCK* block)
{
    return service(file, nullptr, Called::Routine, called, block, Code(METHOD_NEITHER), nullptr, 0, nullptr, 0);
}

bool Alertable()
{
    LARGE_INTEGER none{};
    return NtDelayExecution(TRUE, &none) == STATUS_USER_APC;
}

struct Row {
    ULONG Options;
    bool Pends;
    NTSTATUS Status;
    bool Comes; // as the status block is written
};

constexpr ULONG Sync = FILE_SYNCHRONOUS_IO_NONALERT, Async = 0;
constexpr Row kRows[] = {
    {Async, false, STATUS_SUCCESS, true},        {Async, false, STATUS_BUFFER_OVERFLOW, true},
    {Async, false, STATUS_ACCESS_DENIED, false}, {Async, true, STATUS_SUCCESS, true},
    {Async, true, STATUS_ACCESS_DENIED, true},   {Sync, false, STATUS_SUCCESS, true},
    {Sync, true, STATUS_SUCCESS, true},          {Sync, true, STATUS_ACCESS_DENIED, false},
};

TEST_F(IoApc, ComesByTheRulesOfTheStatusBlock)
{
    for (const Row& row : kRows) {
        SCOPED_TRACE(&row - kRows);
        const Opened opened = Open({.Options = row.Options});
        Called called;
        IO_STATUS_BLOCK block{};
        {
            Parked parked;
            const Dispatch park = parked.Routine();
            Driver().Majors[IRP_MJ_DEVICE_CONTROL] = [&](PDEVICE_OBJECT target, PIRP irp) {
                return row.Pends ? park(target, irp) : Complete(irp, row.Status);
            };
            if (row.Pends && row.Options == Sync) parked.CompleteOnOtherThread(row.Status);
            const NTSTATUS returned = Control(NtDeviceIoControlFile, opened.Handle, &called, &block);
            EXPECT_EQ(returned, row.Pends && row.Options == Async ? STATUS_PENDING : row.Status);
            if (row.Pends && row.Options == Async) {
                EXPECT_FALSE(Alertable());
                Complete(parked.Await(), row.Status);
            }
        }
        EXPECT_EQ(called.Times, 0); // not before the thread waits for it
        EXPECT_EQ(Alertable(), row.Comes);
        EXPECT_EQ(called.Times, row.Comes);
        if (row.Comes) {
            EXPECT_EQ(called.Block, &block);
            EXPECT_EQ(called.Status, row.Status);
        }
        NtClose(opened.Handle);
    }
}

// Completed by another thread while the issuer is blocked: the wait ends, and the issuer makes the call.
TEST_F(IoApc, EndsTheWaitOfTheIssuer)
{
    const Opened opened = Open({.Options = Async});
    HANDLE never;
    ASSERT_EQ(NtCreateEvent(&never, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE), STATUS_SUCCESS);
    Called called;
    IO_STATUS_BLOCK block{};
    Parked parked;
    Driver().Majors[IRP_MJ_DEVICE_CONTROL] = parked.Routine();
    EXPECT_EQ(Control(NtDeviceIoControlFile, opened.Handle, &called, &block), STATUS_PENDING);
    parked.CompleteOnOtherThread(STATUS_SUCCESS);
    EXPECT_EQ(NtWaitForSingleObject(never, TRUE, nullptr), STATUS_USER_APC);
    EXPECT_EQ(called.Times, 1);
    EXPECT_EQ(called.Thread, PsGetCurrentThread());
    NtClose(never);
    NtClose(opened.Handle);
}

// A kernel-mode caller's comes by itself: in any wait, which goes on, and not in a critical region.
TEST_F(IoApc, OfKernelModeComesAsSoonAsApcsAreOn)
{
    const Opened opened = Open({.Options = Async});
    Called called;
    IO_STATUS_BLOCK block{};
    Driver().Majors[IRP_MJ_DEVICE_CONTROL] = [](PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_SUCCESS); };
    KeEnterCriticalRegion();
    EXPECT_EQ(Control(ZwDeviceIoControlFile, opened.Handle, &called, &block), STATUS_SUCCESS);
    LARGE_INTEGER soon;
    soon.QuadPart = -1;
    EXPECT_EQ(KeDelayExecutionThread(KernelMode, TRUE, &soon), STATUS_SUCCESS);
    EXPECT_EQ(called.Times, 0);
    KeLeaveCriticalRegion();
    EXPECT_EQ(called.Times, 1);
    EXPECT_EQ(called.Irql, PASSIVE_LEVEL);

    Parked parked;
    Driver().Majors[IRP_MJ_DEVICE_CONTROL] = parked.Routine();
    EXPECT_EQ(Control(ZwDeviceIoControlFile, opened.Handle, &called, &block), STATUS_PENDING);
    KEVENT waited;
    KeInitializeEvent(&waited, NotificationEvent, FALSE);
    std::thread completer = nthost::StartThread(nthost::HostProcess(), [&] {
        Complete(parked.Await(), STATUS_SUCCESS);
        KeSetEvent(&waited, 0, FALSE);
    });
    EXPECT_EQ(KeWaitForSingleObject(&waited, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
    completer.join();
    if (called.Times == 1) NtTestAlert(); // satisfied before it began: then the next service brings it
    EXPECT_EQ(called.Times, 2);
    EXPECT_EQ(called.Thread, PsGetCurrentThread());
    NtClose(opened.Handle);
}

// Opened for alertable I/O: an APC for the thread, of whatever kind, ends the request that it waits for.
TEST_F(IoApc, CancelsAlertableSynchronousRequests)
{
    const Opened opened = Open({.Options = FILE_SYNCHRONOUS_IO_ALERT});
    Driver().Majors[IRP_MJ_DEVICE_CONTROL] = [](PDEVICE_OBJECT, PIRP irp) {
        IoMarkIrpPending(irp);
        IoSetCancelRoutine(irp, [](PDEVICE_OBJECT, PIRP cancelled) NTAPI {
            IoReleaseCancelSpinLock(cancelled->CancelIrql);
            Complete(cancelled, STATUS_CANCELLED);
        });
        return STATUS_PENDING;
    };
    static int ran;
    ran = 0;
    const PPS_APC_ROUTINE note = [](PVOID, PVOID, PVOID) NTAPI { ++ran; };
    ASSERT_EQ(NtQueueApcThread(NtCurrentThread(), note, nullptr, nullptr, nullptr), STATUS_SUCCESS);
    IO_STATUS_BLOCK block{};
    EXPECT_EQ(probe::Control(opened.Handle, nullptr, &block), STATUS_CANCELLED);
    EXPECT_EQ(ran, 1);
    NtClose(opened.Handle);
}

} // namespace
