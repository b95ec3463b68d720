// Requests that leave their thread, and their cancellation in each place where one can be: waiting, inside a worker,
// inside a plugin call, and racing with all of them.

#include "open_volume.h"

#include <atomic>
#include <memory>

#include <nthost/process.h>
#include <nthost/registry.h>
#include <nthost/user_memory.h>

#include "frame/context.h"

namespace opening {
namespace {

// One asynchronous read of one byte.
struct AsyncRead : support::Request {
    char Byte = 0;

    NTSTATUS Start(HANDLE file, LONGLONG offset) { return StartRead(file, &Byte, 1, offset); }
};

constexpr OpenRequest kAsync = {.Access = FILE_READ_DATA, .Options = 0};

// A pool of one worker, so that what is served and what waits is known.
class Cancel : public VolumeTest {
protected:
    Cancel() = default;
    void SetUp() override
    {
        SetWorkers(1);
        VolumeTest::SetUp();
    }

    ULONG Pended()
    {
        GvHeldSpinLock lock(Volume()->QueueLock);
        return Volume()->PendedCount;
    }
};

TEST_F(Cancel, EndsAWaitingRequestAtOnce)
{
    Handle file = OpenOrFail("\\file", kAsync);
    auto gate = Plugin().CloseGate("Read");
    AsyncRead served, waiting;
    ASSERT_STATUS(STATUS_PENDING, served.Start(file.Get(), 1));
    gate->WaitForArrivals(1);
    ASSERT_STATUS(STATUS_PENDING, waiting.Start(file.Get(), 2));
    EXPECT_EQ(Pended(), 1u);

    EXPECT_STATUS(STATUS_SUCCESS, waiting.Cancel(file.Get()));
    EXPECT_STATUS(STATUS_CANCELLED, waiting.Wait());
    EXPECT_EQ(waiting.Information(), 0u);
    EXPECT_EQ(Pended(), 0u);

    gate->Open();
    EXPECT_STATUS(STATUS_SUCCESS, served.Wait());
    EXPECT_EQ(served.Byte, '1');
    // The permit that it left behind costs a worker one look at an empty queue, and nobody else anything.
    AsyncRead next;
    ASSERT_STATUS(STATUS_PENDING, next.Start(file.Get(), 3));
    EXPECT_STATUS(STATUS_SUCCESS, next.Wait());
    EXPECT_EQ(next.Byte, '3');
    while (!Trace().Contains("GvMovePendedIrpContextToWorkQueue(): 0xc0000001\n")) std::this_thread::yield();
    EXPECT_EQ(Plugin().Count("Read"), 2u); // the cancelled one never reached it
}

// Served by a worker or on the caller's own thread: the event is set, the call runs to its end, and its result stands.
TEST_F(Cancel, SignalsARequestInAPluginCall)
{
    for (const bool synchronous : {false, true}) {
        SCOPED_TRACE(synchronous);
        Handle file = OpenOrFail("\\file", synchronous ? OpenRequest{} : kAsync);
        auto gate = Plugin().CloseGate("Read");
        std::atomic<LONG> signalled{-1};
        Plugin().Before("Read", [&](PKEVENT cancel) { signalled = KeResetEvent(cancel); });
        AsyncRead read;
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        // A thread's end cancels its requests, so only the read that blocks its caller is made from another one.
        auto start = [&] { status = read.Start(file.Get(), 4); };
        std::thread caller;
        if (synchronous)
            caller = nthost::StartThread(nthost::HostProcess(), start);
        else
            start();
        gate->WaitForArrivals(1);
        EXPECT_STATUS(STATUS_SUCCESS, support::CancelAll(file.Get()));
        gate->Open();
        EXPECT_STATUS(STATUS_SUCCESS, read.Wait());
        if (caller.joinable()) caller.join();
        EXPECT_STATUS(synchronous ? STATUS_SUCCESS : STATUS_PENDING, status);
        EXPECT_EQ(read.Byte, '4');
        EXPECT_EQ(signalled, 1);
        Plugin().RemoveGate("Read");
    }
}

TEST_F(Cancel, ServesInTheOrderOfArrival)
{
    Handle file = OpenOrFail("\\file", kAsync);
    auto gate = Plugin().CloseGate("Read");
    AsyncRead reads[4];
    for (int i = 0; i < 4; ++i) ASSERT_STATUS(STATUS_PENDING, reads[i].Start(file.Get(), i));
    gate->WaitForArrivals(1);
    Plugin().RemoveGate("Read");
    gate->Open();
    for (AsyncRead& read : reads) EXPECT_STATUS(STATUS_SUCCESS, read.Wait());
    Lines expected;
    for (int i = 0; i < 4; ++i) expected.push_back("Read " + std::to_string(i) + " 1");
    Lines calls = TakeCalls();
    std::erase_if(calls, [](const std::string& call) { return !call.starts_with("Read "); });
    EXPECT_EQ(calls, expected);
}

TEST_F(Cancel, RefusesTheRequestThatTheQueueCannotHold)
{
    Handle file = OpenOrFail("\\file", kAsync);
    Plugin().CountOnly(true);
    auto gate = Plugin().CloseGate("Read");
    AsyncRead first, last;
    ASSERT_STATUS(STATUS_PENDING, first.Start(file.Get(), 0));
    gate->WaitForArrivals(1); // the worker has this one; the queue is empty
    std::vector<IO_STATUS_BLOCK> blocks(GvMaximumPended - 1);
    std::vector<char> bytes(GvMaximumPended);
    LARGE_INTEGER offset = {};
    for (size_t i = 0; i < blocks.size(); ++i) {
        ASSERT_STATUS(STATUS_PENDING,
                      NtReadFile(file.Get(), nullptr, nullptr, nullptr, &blocks[i], &bytes[i], 1, &offset, nullptr));
    }
    ASSERT_STATUS(STATUS_PENDING, last.Start(file.Get(), 9)); // the 10,000th that waits
    EXPECT_EQ(Pended(), 10000u);
    AsyncRead tooMany;
    EXPECT_STATUS(STATUS_INSUFFICIENT_RESOURCES, tooMany.Start(file.Get(), 0));
    EXPECT_EQ(Pended(), 10000u);

    Plugin().RemoveGate("Read");
    gate->Open();
    EXPECT_STATUS(STATUS_SUCCESS, last.Wait());
    EXPECT_EQ(last.Byte, '9');
    for (const IO_STATUS_BLOCK& block : blocks) ASSERT_STATUS(STATUS_SUCCESS, block.Status);
    EXPECT_STATUS(STATUS_SUCCESS, first.Wait());
}

// The service does not probe for kernel-mode callers, so these reach the driver.
TEST_F(Cancel, RefusesABadBufferInTheCallersOwnThread)
{
    OpenRequest kernel = kAsync;
    kernel.Kernel = true;
    Handle file = OpenOrFail("\\file", kernel);
    nthost::UserMemory memory(PAGE_SIZE);
    memory.Unmap();
    IO_STATUS_BLOCK statusBlock = {};
    LARGE_INTEGER offset = {};
    EXPECT_STATUS(STATUS_ACCESS_VIOLATION, ZwReadFile(file.Get(), nullptr, nullptr, nullptr, &statusBlock,
                                                      memory.Address(), 10, &offset, nullptr));
    EXPECT_TRUE(Trace().Contains("MmProbeAndLockPages(): failed: 0xc0000005\n"));
    EXPECT_STATUS(STATUS_INVALID_PARAMETER,
                  ZwReadFile(file.Get(), nullptr, nullptr, nullptr, &statusBlock, nullptr, 10, &offset, nullptr));
    EXPECT_TRUE(Trace().Contains("user buffer NULL for IRP: 0x"));
    EXPECT_EQ(Plugin().Count("Read"), 0u);
    EXPECT_EQ(Pended(), 0u);
}

// The pages were locked in the caller's context; what becomes of the address afterwards does not matter.
TEST_F(Cancel, ReadsIntoPagesWhoseAddressIsGone)
{
    Handle file = OpenOrFail("\\file", kAsync);
    nthost::UserMemory memory(PAGE_SIZE);
    auto gate = Plugin().CloseGate("Read");
    support::Request read;
    ASSERT_STATUS(STATUS_PENDING, read.StartRead(file.Get(), memory.Address(), 10, 0));
    gate->WaitForArrivals(1);
    memory.Unmap();
    gate->Open();
    EXPECT_STATUS(STATUS_SUCCESS, read.Wait());
    memory.Map();
    EXPECT_EQ(std::string(memory.Address(), 10), "0123456789");
}

// Whoever wins, each request ends exactly once, with one of two results, and nothing is left on a list.
TEST_F(Cancel, RacesWithQueueingServiceAndCompletion)
{
    constexpr int kRounds = 400;
    Handle file = OpenOrFail("\\file", kAsync);
    Plugin().CountOnly(true);
    std::atomic<bool> stop{false};
    std::thread canceller = nthost::StartThread(nthost::HostProcess(), [&] {
        while (!stop) (void)support::CancelAll(file.Get());
    });
    for (int round = 0; round < kRounds; ++round) {
        AsyncRead reads[3];
        for (AsyncRead& read : reads) ASSERT_STATUS(STATUS_PENDING, read.Start(file.Get(), 5));
        for (AsyncRead& read : reads) {
            const NTSTATUS status = read.Wait();
            EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_CANCELLED) << std::hex << status;
            EXPECT_EQ(read.Information(), status == STATUS_SUCCESS ? 1u : 0u);
        }
    }
    stop = true;
    canceller.join();
    EXPECT_EQ(Pended(), 0u);
    GvHeldSpinLock lock(Volume()->QueueLock);
    EXPECT_TRUE(IsListEmpty(&Volume()->ActiveList));
}

} // namespace
} // namespace opening
