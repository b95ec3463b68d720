// Boots nthost for a test, and makes lock requests by hand: a packet with one stack location whose completion routine
// keeps the packet and notes the outcome. Requests are completed on any thread; a test reads the outcome once it knows.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include <nthost/process.h>

#include "support/host.h"

namespace locktest {

// An owner: which of the test's file objects and processes, and the key. Their addresses are never followed.
struct Who {
    unsigned File;
    unsigned Process;
    ULONG Key;

    bool operator==(const Who&) const = default;
};

struct Bytes {
    uint64_t First;
    uint64_t Length;
};

inline LARGE_INTEGER Large(uint64_t value)
{
    LARGE_INTEGER large;
    large.QuadPart = static_cast<LONGLONG>(value);
    return large;
}

inline FILE_OBJECT g_files[3];
inline char g_processes[3];
inline PFILE_OBJECT File(const Who& who) { return &g_files[who.File]; }
inline PEPROCESS Process(const Who& who) { return reinterpret_cast<PEPROCESS>(&g_processes[who.Process]); }

class LockRequest {
public:
    LockRequest() : irp_(IoAllocateIrp(1, FALSE))
    {
        IoSetCompletionRoutine(irp_, OnCompletion, this, TRUE, TRUE, TRUE);
        IoSetNextIrpStackLocation(irp_);
        irp_->Tail.Overlay.Thread = PsGetCurrentThread();
        Stack()->MajorFunction = IRP_MJ_LOCK_CONTROL;
    }
    ~LockRequest()
    {
        EXPECT_TRUE(!issued_ || Completions == 1);
        IoFreeIrp(irp_);
    }
    LockRequest(const LockRequest&) = delete;
    LockRequest& operator=(const LockRequest&) = delete;

    // Through the stack location, for the Requestor.
    NTSTATUS Issue(PFILE_LOCK lock, PFILE_OBJECT file, UCHAR minor, Bytes bytes, UCHAR flags = 0, ULONG key = 0,
                   PVOID context = nullptr)
    {
        length_ = Large(bytes.Length);
        Stack()->MinorFunction = minor;
        Stack()->Flags = flags;
        Stack()->FileObject = file;
        Stack()->Parameters.LockControl.Length = &length_;
        Stack()->Parameters.LockControl.ByteOffset = Large(bytes.First);
        Stack()->Parameters.LockControl.Key = key;
        issued_ = true;
        return FsRtlProcessFileLock(lock, irp_, context);
    }

    // Directly, for any owner; waits unless the range is free.
    NTSTATUS Lock(PFILE_LOCK lock, const Who& who, Bytes bytes, bool exclusive, PVOID context = nullptr)
    {
        LARGE_INTEGER offset = Large(bytes.First), length = Large(bytes.Length);
        IO_STATUS_BLOCK status{};
        issued_ = true;
        EXPECT_TRUE(FsRtlPrivateLock(lock, File(who), &offset, &length, Process(who), who.Key, FALSE, exclusive,
                                     &status, irp_, context, FALSE));
        return status.Status;
    }

    PEPROCESS Requestor() { return IoGetRequestorProcess(irp_); }
    bool Cancel() { return IoCancelIrp(irp_) != FALSE; }
    // Cancellation in two halves, as another thread would go through it: the routine is taken off, then called.
    PDRIVER_CANCEL BeginCancel()
    {
        KIRQL irql;
        IoAcquireCancelSpinLock(&irql);
        irp_->Cancel = TRUE;
        PDRIVER_CANCEL const routine = IoSetCancelRoutine(irp_, nullptr);
        IoReleaseCancelSpinLock(irql);
        return routine;
    }
    void EndCancel(PDRIVER_CANCEL routine)
    {
        IoAcquireCancelSpinLock(&irp_->CancelIrql);
        routine(nullptr, irp_);
    }
    bool MarkedPending() { return Stack()->Control & SL_PENDING_RETURNED; }

    std::atomic<int> Completions{0};
    NTSTATUS Status = STATUS_PENDING;         // once Completions is 1
    std::vector<LockRequest*>* Log = nullptr; // where completed requests line up; for tests of one thread

private:
    static NTSTATUS NTAPI OnCompletion(PDEVICE_OBJECT, PIRP irp, PVOID context)
    {
        auto* const request = static_cast<LockRequest*>(context);
        request->Status = irp->IoStatus.Status;
        if (request->Log) request->Log->push_back(request);
        ++request->Completions;
        request->Completions.notify_all();
        return STATUS_MORE_PROCESSING_REQUIRED;
    }
    // The one location, also after completion has stepped over it.
    PIO_STACK_LOCATION Stack() { return reinterpret_cast<PIO_STACK_LOCATION>(irp_ + 1); }

    PIRP irp_;
    LARGE_INTEGER length_{};
    bool issued_ = false;
};

class LockTest : public support::BootedTest {
protected:
    void SetUp() override
    {
        BootedTest::SetUp();
        FsRtlInitializeFileLock(&Lock_, nullptr, nullptr);
    }
    void TearDown() override
    {
        FsRtlUninitializeFileLock(&Lock_);
        BootedTest::TearDown();
    }

    bool TryLock(const Who& who, Bytes bytes, bool exclusive) { return TryLockStatus(who, bytes, exclusive) == 0; }
    NTSTATUS TryLockStatus(const Who& who, Bytes bytes, bool exclusive)
    {
        LARGE_INTEGER offset = Large(bytes.First), length = Large(bytes.Length);
        IO_STATUS_BLOCK status{};
        EXPECT_TRUE(FsRtlFastLock(&Lock_, File(who), &offset, &length, Process(who), who.Key, TRUE, exclusive, &status,
                                  nullptr, FALSE));
        return status.Status;
    }
    NTSTATUS Unlock(const Who& who, Bytes bytes)
    {
        LARGE_INTEGER offset = Large(bytes.First), length = Large(bytes.Length);
        return FsRtlFastUnlockSingle(&Lock_, File(who), &offset, &length, Process(who), who.Key, nullptr, FALSE);
    }
    bool MayRead(const Who& who, Bytes bytes)
    {
        LARGE_INTEGER offset = Large(bytes.First), length = Large(bytes.Length);
        return FsRtlFastCheckLockForRead(&Lock_, &offset, &length, who.Key, File(who), Process(who));
    }
    bool MayWrite(const Who& who, Bytes bytes)
    {
        LARGE_INTEGER offset = Large(bytes.First), length = Large(bytes.Length);
        return FsRtlFastCheckLockForWrite(&Lock_, &offset, &length, who.Key, File(who), Process(who));
    }
    size_t HeldCount()
    {
        size_t count = 0;
        for (auto* lock = FsRtlGetNextFileLock(&Lock_, TRUE); lock; lock = FsRtlGetNextFileLock(&Lock_, FALSE)) ++count;
        return count;
    }

    FILE_LOCK Lock_;
};

} // namespace locktest
