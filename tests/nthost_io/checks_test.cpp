// Each rule of the request checks, broken once. None of it may bring the host down.
#include "probe.h"

#include <utility>

#include "io/outstanding.h"

using namespace probe;

#if NTHOST_CHECKS

namespace {

class Checks : public IoTest {
protected:
    // Sends one request to the routine and expects the rule's finding and the service's status.
    void Breaks(Dispatch routine, const std::string& rule, NTSTATUS status)
    {
        SCOPED_TRACE(rule);
        const nthost::QuietFindings quiet;
        Driver().Majors[IRP_MJ_DEVICE_CONTROL] = std::move(routine);
        const Opened opened = Open();
        IO_STATUS_BLOCK block;
        EXPECT_EQ(Control(opened.Handle, nullptr, &block), status);
        NtClose(opened.Handle);
        ExpectFindings({rule});
    }
};

VOID NTAPI NeverCalled(PDEVICE_OBJECT, PIRP) { ADD_FAILURE() << "cancel routine of a completed request"; }

TEST_F(Checks, DispatchRoutinesThatBreakARule)
{
    Breaks(
        [](PDEVICE_OBJECT, PIRP irp) {
            Complete(irp, STATUS_SUCCESS);
            return Complete(irp, STATUS_SUCCESS);
        },
        "irp-completed-twice", STATUS_SUCCESS);
    Breaks(
        [](PDEVICE_OBJECT, PIRP irp) {
            IoSetCancelRoutine(irp, NeverCalled);
            return Complete(irp, STATUS_SUCCESS);
        },
        "irp-completed-with-cancel-routine", STATUS_SUCCESS);
    Breaks(
        [](PDEVICE_OBJECT, PIRP irp) {
            Complete(irp, STATUS_SUCCESS);
            return STATUS_ACCESS_DENIED;
        },
        "irp-status-mismatch", STATUS_SUCCESS);
    Breaks(
        [](PDEVICE_OBJECT, PIRP irp) {
            IoMarkIrpPending(irp);
            return Complete(irp, STATUS_SUCCESS);
        },
        "irp-pending-not-returned", STATUS_SUCCESS);
    Breaks(
        [](PDEVICE_OBJECT, PIRP irp) {
            Complete(irp, STATUS_SUCCESS);
            return STATUS_PENDING;
        },
        "irp-pending-not-marked", STATUS_SUCCESS);
    Breaks(
        [](PDEVICE_OBJECT, PIRP irp) {
            IoMarkIrpPending(irp);
            Complete(irp, STATUS_PENDING);
            return STATUS_PENDING;
        },
        "irp-completed-pending", STATUS_PENDING);
}

// The second completion comes when the packet is long free.
TEST_F(Checks, LateSecondCompletionIsFound)
{
    PIRP kept = nullptr;
    Driver().Majors[IRP_MJ_DEVICE_CONTROL] = [&](PDEVICE_OBJECT, PIRP irp) {
        kept = irp;
        return Complete(irp, STATUS_SUCCESS);
    };
    const Opened opened = Open();
    IO_STATUS_BLOCK block;
    EXPECT_EQ(Control(opened.Handle, nullptr, &block), STATUS_SUCCESS);
    NtClose(opened.Handle);
    const nthost::QuietFindings quiet;
    IoCompleteRequest(kept, IO_NO_INCREMENT);
    IoFreeIrp(kept);
    ExpectFindings({"irp-completed-twice", "irp-freed-twice"});
}

TEST_F(Checks, ForgottenRequestKeepsItsFileUntilItIsCompletedAfterAll)
{
    PIRP forgotten = nullptr;
    Breaks(
        [&](PDEVICE_OBJECT, PIRP irp) {
            forgotten = irp;
            return STATUS_ACCESS_DENIED;
        },
        "irp-not-completed", STATUS_ACCESS_DENIED);
    EXPECT_EQ(Seen(IRP_MJ_CLOSE), 0u);
    std::vector<std::string> leaks;
    EXPECT_EQ(Unload(&leaks), STATUS_DEVICE_NOT_READY);
    Complete(forgotten, STATUS_SUCCESS);
    EXPECT_EQ(Unload(&leaks), STATUS_SUCCESS);
    EXPECT_EQ(Seen(IRP_MJ_CLOSE), 1u);
}

TEST_F(Checks, CancelRoutineThatKeepsTheLockIsFound)
{
    Parked parked;
    Driver().Majors[IRP_MJ_DEVICE_CONTROL] = [&, park = parked.Routine()](PDEVICE_OBJECT target, PIRP irp) {
        IoSetCancelRoutine(irp, [](PDEVICE_OBJECT, PIRP) NTAPI {});
        return park(target, irp);
    };
    const Opened opened = Open({.Options = 0});
    IO_STATUS_BLOCK block, result;
    EXPECT_EQ(Control(opened.Handle, nullptr, &block), STATUS_PENDING);
    PIRP const kept = parked.Await();
    {
        const nthost::QuietFindings quiet;
        EXPECT_EQ(NtCancelIoFileEx(opened.Handle, nullptr, &result), STATUS_SUCCESS);
        IoReleaseCancelSpinLock(PASSIVE_LEVEL);
        ExpectFindings({"irql-changed", "lock-held-at-return"});
    }
    Complete(kept, STATUS_CANCELLED);
    NtClose(opened.Handle);
}

TEST_F(Checks, ErrorLogEntryAboveDispatchLevelIsFound)
{
    const nthost::QuietFindings quiet;
    const KIRQL old = KfRaiseIrql(DISPATCH_LEVEL + 1);
    PVOID const entry = IoAllocateErrorLogEntry(device, sizeof(IO_ERROR_LOG_PACKET));
    KeLowerIrql(old);
    ExpectFindings({"error-log-above-dispatch-level"});
    ASSERT_NE(entry, nullptr);
    IoFreeErrorLogEntry(entry);
}

// The thread has to stay until its request ends; that it had to wait is found.
TEST_F(Checks, RequestThatOutlivesItsThreadsPatienceIsFound)
{
    const int64_t patience = std::exchange(nthost::io::CancelPatience, 0);
    const nthost::QuietFindings quiet;
    Parked parked;
    Driver().Majors[IRP_MJ_DEVICE_CONTROL] = parked.Routine(); // without a cancel routine
    const Opened opened = Open({.Options = 0});
    IO_STATUS_BLOCK block;
    std::thread caller = nthost::StartThread(
        nthost::HostProcess(), [&] { EXPECT_EQ(Control(opened.Handle, nullptr, &block), STATUS_PENDING); });
    PIRP const kept = parked.Await();
    std::vector<nthost::Finding> findings;
    while ((findings = nthost::TakeFindings()).empty()) std::this_thread::yield();
    EXPECT_EQ(findings[0].Rule, "irp-not-cancelled");
    Complete(kept, STATUS_SUCCESS);
    caller.join();
    EXPECT_EQ(block.Status, STATUS_SUCCESS);
    NtClose(opened.Handle);
    nthost::io::CancelPatience = patience;
}

TEST_F(Checks, DeviceDeletedTwiceIsFound)
{
    PDEVICE_OBJECT nameless;
    ASSERT_EQ(IoCreateDevice(Object(), 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &nameless), STATUS_SUCCESS);
    ObReferenceObject(nameless);
    IoDeleteDevice(nameless);
    const nthost::QuietFindings quiet;
    IoDeleteDevice(nameless);
    ExpectFindings({"device-deleted-twice"});
    ObDereferenceObject(nameless);
}

TEST_F(Checks, PacketThatADriverForgotIsOutstandingAtUnload)
{
    PIRP const irp = IoAllocateIrp(1, FALSE);
    const nthost::QuietFindings quiet;
    std::vector<std::string> leaks;
    EXPECT_EQ(Unload(&leaks), STATUS_SUCCESS);
    EXPECT_EQ(leaks.size(), 1u);
    ExpectFindings({"irp-outstanding"});
    IoFreeIrp(irp);
}

} // namespace

#endif
