// Cancelling requests: by thread, by process, by status block, at a thread's end; and the closes that completions
// cause.
#include "probe.h"

#include <mutex>
#include <set>

#include "ob/object.h"

using namespace probe;

namespace {

// A driver that lets requests wait until they are cancelled or it is told to go on. Whoever takes a request off the
// list or its cancel routine away completes it; the list's lock keeps the packet in place for the other.
class WaitingQueue {
public:
    Dispatch Routine()
    {
        return [this](PDEVICE_OBJECT, PIRP irp) { return Park(irp); };
    }
    void AwaitArrival() { arrived_.acquire(); }
    PIRP Last() const { return last_; }
    void Release(PIRP irp)
    {
        if (TakeFromCancel(irp)) Complete(irp, STATUS_SUCCESS);
    }

private:
    NTSTATUS Park(PIRP irp)
    {
        IoMarkIrpPending(irp);
        irp->Tail.Overlay.DriverContext[0] = this;
        last_ = irp;
        bool cancelled;
        {
            const std::lock_guard hold(lock_);
            waiting_.insert(irp);
            IoSetCancelRoutine(irp, OnCancel);
            // Cancelled before the routine stood: nobody else will come for it.
            cancelled = irp->Cancel && IoSetCancelRoutine(irp, nullptr);
            if (cancelled) waiting_.erase(irp);
        }
        if (cancelled) Complete(irp, STATUS_CANCELLED);
        arrived_.release();
        return STATUS_PENDING;
    }
    bool TakeFromCancel(PIRP irp)
    {
        const std::lock_guard hold(lock_);
        return waiting_.erase(irp) && IoSetCancelRoutine(irp, nullptr);
    }
    static VOID NTAPI OnCancel(PDEVICE_OBJECT target, PIRP irp)
    {
        EXPECT_EQ(target, device);
        EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
        IoReleaseCancelSpinLock(irp->CancelIrql);
        auto* const self = static_cast<WaitingQueue*>(irp->Tail.Overlay.DriverContext[0]);
        {
            const std::lock_guard hold(self->lock_);
            self->waiting_.erase(irp);
        }
        EXPECT_TRUE(irp->Cancel);
        Complete(irp, STATUS_CANCELLED);
    }

    std::counting_semaphore<> arrived_{0};
    std::atomic<PIRP> last_{nullptr};
    std::mutex lock_;
    std::set<PIRP> waiting_;
};

class Cancel : public IoTest {
protected:
    void SetUp() override
    {
        IoTest::SetUp();
        Driver().Majors[IRP_MJ_DEVICE_CONTROL] = queue_.Routine();
    }
    WaitingQueue queue_;
};

TEST_F(Cancel, OwnThreadsRequestsEndBeforeTheServiceReturns)
{
    const Opened opened = Open({.Options = 0}), other = Open({.Options = 0});
    IO_STATUS_BLOCK mine[2], others, elsewhere, result;
    EXPECT_EQ(Control(opened.Handle, nullptr, &mine[0]), STATUS_PENDING);
    EXPECT_EQ(Control(opened.Handle, nullptr, &mine[1]), STATUS_PENDING);
    EXPECT_EQ(Control(other.Handle, nullptr, &elsewhere), STATUS_PENDING);
    PIRP const elsewhereIrp = queue_.Last();
    others.Status = STATUS_PENDING;
    std::binary_semaphore cancelled{0}, issued{0};
    std::thread thread = nthost::StartThread(nthost::HostProcess(), [&] {
        EXPECT_EQ(Control(opened.Handle, nullptr, &others), STATUS_PENDING);
        issued.release();
        cancelled.acquire();
        queue_.Release(queue_.Last());
    });
    issued.acquire();
    EXPECT_EQ(NtCancelIoFile(opened.Handle, &result), STATUS_SUCCESS);
    EXPECT_EQ(mine[0].Status, STATUS_CANCELLED);
    EXPECT_EQ(mine[1].Status, STATUS_CANCELLED);
    EXPECT_EQ(others.Status, STATUS_PENDING); // another thread's
    cancelled.release();
    thread.join();
    EXPECT_EQ(others.Status, STATUS_SUCCESS);
    queue_.Release(elsewhereIrp);
    EXPECT_EQ(elsewhere.Status, STATUS_SUCCESS);                       // on another file object
    EXPECT_EQ(NtCancelIoFile(opened.Handle, &result), STATUS_SUCCESS); // nothing to do is no error
    NtClose(opened.Handle);
    NtClose(other.Handle);
}

TEST_F(Cancel, ByStatusBlockAndAcrossThreads)
{
    const Opened opened = Open({.Options = 0});
    IO_STATUS_BLOCK first, second, result;
    EXPECT_EQ(Control(opened.Handle, nullptr, &first), STATUS_PENDING);
    EXPECT_EQ(Control(opened.Handle, nullptr, &second), STATUS_PENDING);
    std::thread thread = nthost::StartThread(nthost::HostProcess(), [&] {
        EXPECT_EQ(NtCancelIoFileEx(opened.Handle, &second, &result), STATUS_SUCCESS);
        EXPECT_EQ(NtCancelIoFileEx(opened.Handle, &second, &result), STATUS_NOT_FOUND);
        EXPECT_EQ(NtCancelIoFileEx(opened.Handle, nullptr, &result), STATUS_SUCCESS);
    });
    thread.join();
    EXPECT_EQ(first.Status, STATUS_CANCELLED);
    EXPECT_EQ(second.Status, STATUS_CANCELLED);
    EXPECT_EQ(NtCancelIoFileEx(opened.Handle, nullptr, &result), STATUS_NOT_FOUND);
    NtClose(opened.Handle);
}

TEST_F(Cancel, ReachesARequestThatAnotherThreadWaitsForButNotOfAnotherProcess)
{
    const Opened opened = Open();
    std::thread thread = nthost::StartThread(nthost::HostProcess(), [&] {
        IO_STATUS_BLOCK block;
        EXPECT_EQ(Control(opened.Handle, nullptr, &block), STATUS_CANCELLED);
    });
    queue_.AwaitArrival();
    IO_STATUS_BLOCK result;
    {
        nthost::Process process("guest");
        HANDLE copy;
        ASSERT_EQ(ObOpenObjectByPointer(process.Object(), 0, nullptr, 0x1fffff, PsProcessType, KernelMode, &copy),
                  STATUS_SUCCESS);
        HANDLE theirs;
        ASSERT_EQ(NtDuplicateObject(NtCurrentProcess(), opened.Handle, copy, &theirs, 0, 0, DUPLICATE_SAME_ACCESS),
                  STATUS_SUCCESS);
        NtClose(copy);
        nthost::ActAs guest(process.Object());
        EXPECT_EQ(NtCancelIoFileEx(theirs, nullptr, &result), STATUS_NOT_FOUND);
    }
    EXPECT_EQ(NtCancelIoFileEx(opened.Handle, nullptr, &result), STATUS_SUCCESS);
    thread.join();
    NtClose(opened.Handle);
}

TEST_F(Cancel, ThreadTakesItsRequestsWithIt)
{
    const Opened opened = Open({.Options = 0});
    IO_STATUS_BLOCK block;
    nthost::StartThread(nthost::HostProcess(), [&] {
        EXPECT_EQ(Control(opened.Handle, nullptr, &block), STATUS_PENDING);
    }).join();
    EXPECT_EQ(block.Status, STATUS_CANCELLED);
    NtClose(opened.Handle);
}

// The handle is gone and the request has the last reference, but the driver is in the middle of its cancel routine.
TEST_F(Cancel, AtThreadExitKeepsTheFileOfTheRequest)
{
    static LONG references;
    references = 0;
    Driver().Majors[IRP_MJ_DEVICE_CONTROL] = [](PDEVICE_OBJECT, PIRP irp) {
        IoMarkIrpPending(irp);
        IoSetCancelRoutine(irp, [](PDEVICE_OBJECT, PIRP cancelled) NTAPI {
            IoReleaseCancelSpinLock(cancelled->CancelIrql);
            references = nthost::ob::PointerCount(IoGetCurrentIrpStackLocation(cancelled)->FileObject);
            Complete(cancelled, STATUS_CANCELLED);
        });
        return STATUS_PENDING;
    };
    IO_STATUS_BLOCK block;
    nthost::StartThread(nthost::HostProcess(), [&] {
        const Opened opened = Open({.Options = 0});
        EXPECT_EQ(Control(opened.Handle, nullptr, &block), STATUS_PENDING);
        NtClose(opened.Handle);
    }).join();
    EXPECT_EQ(references, 2); // the request's, and one of whoever cancels
}

TEST_F(Cancel, MeetsARequestInsideItsDispatchRoutine)
{
    std::binary_semaphore inside{0}, goOn{0};
    std::atomic<PIRP> irp{nullptr};
    Driver().Majors[IRP_MJ_DEVICE_CONTROL] = [&](PDEVICE_OBJECT, PIRP request) {
        irp = request;
        inside.release();
        goOn.acquire();
        // No cancel routine stood, so the flag is all that a driver sees.
        return Complete(request, request->Cancel ? STATUS_CANCELLED : STATUS_SUCCESS);
    };
    const Opened opened = Open({.Options = 0});
    std::thread thread = nthost::StartThread(nthost::HostProcess(), [&] {
        IO_STATUS_BLOCK block;
        EXPECT_EQ(Control(opened.Handle, nullptr, &block), STATUS_CANCELLED);
    });
    inside.acquire();
    IO_STATUS_BLOCK result;
    EXPECT_EQ(NtCancelIoFileEx(opened.Handle, nullptr, &result), STATUS_SUCCESS);
    goOn.release();
    thread.join();
    NtClose(opened.Handle);
}

// Both sides race for the cancel routine: exactly one completes the request, whoever wins.
TEST_F(Cancel, RaceWithCompletionHasOneWinner)
{
    const Opened opened = Open({.Options = 0});
    constexpr int Rounds = 300;
    std::binary_semaphore ready{0}, done{0};
    std::thread thread = nthost::StartThread(nthost::HostProcess(), [&] {
        for (int i = 0; i < Rounds; ++i) {
            ready.acquire();
            IO_STATUS_BLOCK result;
            (void)NtCancelIoFileEx(opened.Handle, nullptr, &result);
            done.release();
        }
    });
    for (int i = 0; i < Rounds; ++i) {
        IO_STATUS_BLOCK block = {{STATUS_NOT_IMPLEMENTED}, 0};
        EXPECT_EQ(Control(opened.Handle, nullptr, &block), STATUS_PENDING);
        PIRP const irp = queue_.Last();
        ready.release();
        queue_.Release(irp);
        done.acquire();
        EXPECT_EQ(NtWaitForSingleObject(opened.Handle, FALSE, nullptr), STATUS_SUCCESS);
        EXPECT_TRUE(block.Status == STATUS_SUCCESS || block.Status == STATUS_CANCELLED);
    }
    thread.join();
    NtClose(opened.Handle);
}

TEST_F(Cancel, CompletionThatDropsTheLastReferenceLeavesTheCloseToAWorker)
{
    std::thread::id closer;
    KIRQL closeIrql = HIGH_LEVEL;
    Driver().Majors[IRP_MJ_CLOSE] = [&](PDEVICE_OBJECT, PIRP irp) {
        closer = std::this_thread::get_id();
        closeIrql = KeGetCurrentIrql();
        return Complete(irp, STATUS_SUCCESS);
    };
    const Opened opened = Open({.Options = 0});
    IO_STATUS_BLOCK block;
    EXPECT_EQ(Control(opened.Handle, nullptr, &block), STATUS_PENDING);
    NtClose(opened.Handle);
    EXPECT_EQ(Seen(IRP_MJ_CLEANUP), 1u);
    EXPECT_EQ(Seen(IRP_MJ_CLOSE), 0u); // the request keeps the file object
    const KIRQL irql = KfRaiseIrql(DISPATCH_LEVEL);
    queue_.Release(queue_.Last());
    KeLowerIrql(irql);
    std::vector<std::string> leaks;
    EXPECT_EQ(Unload(&leaks), STATUS_SUCCESS); // which waits for it
    EXPECT_EQ(Seen(IRP_MJ_CLOSE), 1u);
    EXPECT_TRUE(closer != std::this_thread::get_id());
    EXPECT_EQ(closeIrql, PASSIVE_LEVEL);
    EXPECT_EQ(leaks, std::vector<std::string>());
}

} // namespace
