// The order of waits through a driver's own worker queue: whoever waits for a queued request waits for the workers, and
// for the locks that they take. One thread after another is enough.
#include <deque>
#include <mutex>

#include "probe.h"

using namespace probe;

#if NTHOST_CHECKS

namespace {

// Flushes, controls and reads go to two workers. For a control the worker takes the lock; for a read it flushes.
class QueueOrder : public IoTest {
protected:
    void SetUp() override
    {
        IoTest::SetUp();
        ASSERT_EQ(ExInitializeResourceLite(&lock_), STATUS_SUCCESS);
        KeInitializeSemaphore(&queued_, 0, 100);
        for (const UCHAR major : {IRP_MJ_FLUSH_BUFFERS, IRP_MJ_DEVICE_CONTROL, IRP_MJ_READ})
            Driver().Majors[major] = [this](PDEVICE_OBJECT, PIRP irp) { return Queue(irp); };
        // Releases too, without having queued anything.
        Driver().Majors[IRP_MJ_SET_INFORMATION] = [this](PDEVICE_OBJECT, PIRP irp) {
            KeReleaseSemaphore(&queued_, IO_NO_INCREMENT, 1, FALSE);
            return Complete(irp, STATUS_SUCCESS, 0);
        };
        for (PVOID& worker : workers_) worker = StartWorker();
        file_ = Open().Handle;
        other_ = Open({.Sharing = FILE_SHARE_READ | FILE_SHARE_WRITE}).Handle;
    }

    void TearDown() override
    {
        EXPECT_EQ(NtClose(file_), STATUS_SUCCESS);
        EXPECT_EQ(NtClose(other_), STATUS_SUCCESS);
        stop_ = true;
        KeReleaseSemaphore(&queued_, IO_NO_INCREMENT, 2, FALSE);
        for (PVOID worker : workers_) {
            EXPECT_EQ(KeWaitForSingleObject(worker, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
            ObDereferenceObject(worker);
        }
        ExDeleteResourceLite(&lock_);
        IoTest::TearDown();
    }

    void Flush() const
    {
        IO_STATUS_BLOCK block;
        EXPECT_EQ(NtFlushBuffersFile(other_, &block), STATUS_SUCCESS);
    }
    void SetSize() const
    {
        IO_STATUS_BLOCK block;
        LARGE_INTEGER size{};
        EXPECT_EQ(NtSetInformationFile(other_, &block, &size, sizeof size, FileEndOfFileInformation), STATUS_SUCCESS);
    }
    void Write() const
    {
        IO_STATUS_BLOCK block;
        LARGE_INTEGER offset{};
        EXPECT_EQ(NtWriteFile(file_, nullptr, nullptr, nullptr, &block, &offset, 1, &offset, nullptr), STATUS_SUCCESS);
    }
    void TakeLockInWorker() const
    {
        IO_STATUS_BLOCK block;
        EXPECT_EQ(Control(file_, nullptr, &block), STATUS_SUCCESS);
    }
    void FlushInWorker() const
    {
        IO_STATUS_BLOCK block;
        LARGE_INTEGER offset{};
        char byte;
        EXPECT_EQ(NtReadFile(file_, nullptr, nullptr, nullptr, &block, &byte, 1, &offset, nullptr), STATUS_SUCCESS);
    }
    template <typename Body>
    void UnderLock(Body body)
    {
        KeEnterCriticalRegion();
        ExAcquireResourceExclusiveLite(&lock_, TRUE);
        body();
        ExReleaseResourceLite(&lock_);
        KeLeaveCriticalRegion();
    }
    std::string TheCycle() const
    {
        const auto findings = nthost::TakeFindings();
        EXPECT_EQ(findings.size(), 1u);
        if (findings.empty()) return "";
        EXPECT_EQ(findings[0].Rule, "lock-order-cycle");
        return findings[0].Detail;
    }

private:
    NTSTATUS Queue(PIRP irp)
    {
        IoMarkIrpPending(irp);
        {
            const std::lock_guard hold(mutex_);
            requests_.push_back(irp);
        }
        KeReleaseSemaphore(&queued_, IO_NO_INCREMENT, 1, FALSE);
        return STATUS_PENDING;
    }

    PVOID StartWorker()
    {
        HANDLE handle;
        PVOID thread = nullptr;
        EXPECT_EQ(PsCreateSystemThread(&handle, SYNCHRONIZE, nullptr, nullptr, nullptr, Work, this), STATUS_SUCCESS);
        EXPECT_EQ(ObReferenceObjectByHandle(handle, SYNCHRONIZE, PsThreadType, KernelMode, &thread, nullptr),
                  STATUS_SUCCESS);
        EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
        return thread;
    }

    static VOID NTAPI Work(PVOID context)
    {
        auto* const self = static_cast<QueueOrder*>(context);
        for (;;) {
            KeWaitForSingleObject(&self->queued_, Executive, KernelMode, FALSE, nullptr);
            if (self->stop_) return;
            self->ServeNext();
        }
    }

    void ServeNext()
    {
        PIRP irp;
        {
            const std::lock_guard hold(mutex_);
            if (requests_.empty()) return;
            irp = requests_.front();
            requests_.pop_front();
        }
        const UCHAR major = IoGetCurrentIrpStackLocation(irp)->MajorFunction;
        if (major == IRP_MJ_DEVICE_CONTROL) UnderLock([] {});
        if (major == IRP_MJ_READ) {
            const nthost::ActAs opener(nthost::HostProcess()); // whose handle it is
            Flush();
        }
        Complete(irp, STATUS_SUCCESS, 0);
    }

    ERESOURCE lock_;
    KSEMAPHORE queued_;
    std::mutex mutex_;
    std::deque<PIRP> requests_;
    std::atomic<bool> stop_{false};
    PVOID workers_[2];
    HANDLE file_ = nullptr, other_ = nullptr;
};

TEST_F(QueueOrder, WaitUnderALockThatAWorkerTakes)
{
    TakeLockInWorker();
    UnderLock([this] { SetSize(); }); // nobody waits for what was not queued
    {
        // Pended by other means, after a request of its own that releases.
        Parked parked;
        Driver().Majors[IRP_MJ_WRITE] = [&](PDEVICE_OBJECT device, PIRP irp) {
            SetSize();
            return parked.Routine()(device, irp);
        };
        parked.CompleteOnOtherThread(STATUS_SUCCESS);
        UnderLock([this] { Write(); });
    }
    EXPECT_TRUE(nthost::TakeFindings().empty());
    const nthost::QuietFindings quiet;
    UnderLock([this] { Flush(); });
    const std::string detail = TheCycle();
    EXPECT_NE(detail.find("wait for worker queue 0x"), std::string::npos) << detail;
    EXPECT_NE(detail.find(" of device \\Device\\Probe by a thread that holds"), std::string::npos) << detail;
    EXPECT_NE(detail.find("by a thread that serves worker queue"), std::string::npos) << detail;
}

TEST_F(QueueOrder, LockAfterSuchAWait)
{
    UnderLock([this] { Flush(); });
    const nthost::QuietFindings quiet;
    TakeLockInWorker();
    TheCycle();
}

// All workers might do so at once.
TEST_F(QueueOrder, WorkerWaitsForItsOwnQueue)
{
    const nthost::QuietFindings quiet;
    FlushInWorker();
    const std::string detail = TheCycle();
    EXPECT_EQ(detail.find("elsewhere"), std::string::npos) << detail;
}

} // namespace

#endif
