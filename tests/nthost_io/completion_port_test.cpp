// Completion ports: the queue itself, and what the ends of requests put there.
#include "probe.h"

using namespace probe;

namespace {

constexpr ULONG Async = 0;

struct Removed {
    NTSTATUS Status;
    intptr_t Key = 0, Context = 0;
    IO_STATUS_BLOCK Block{};
};

class Port : public IoTest {
protected:
    void SetUp() override
    {
        IoTest::SetUp();
        ASSERT_EQ(NtCreateIoCompletion(&port, IO_COMPLETION_ALL_ACCESS, nullptr, 0), STATUS_SUCCESS);
    }
    void TearDown() override
    {
        if (port) { EXPECT_EQ(NtClose(port), STATUS_SUCCESS); }
        IoTest::TearDown();
    }

    void Post(intptr_t key, intptr_t context)
    {
        EXPECT_EQ(NtSetIoCompletion(port, reinterpret_cast<PVOID>(key), reinterpret_cast<PVOID>(context),
                                    STATUS_BUFFER_OVERFLOW, 9),
                  STATUS_SUCCESS);
    }

    Removed Remove(PLARGE_INTEGER timeout)
    {
        Removed removed;
        PVOID key = nullptr, context = nullptr;
        removed.Status = NtRemoveIoCompletion(port, &key, &context, &removed.Block, timeout);
        removed.Key = reinterpret_cast<intptr_t>(key);
        removed.Context = reinterpret_cast<intptr_t>(context);
        return removed;
    }
    Removed RemoveNow()
    {
        LARGE_INTEGER now{};
        return Remove(&now);
    }

    NTSTATUS Bind(HANDLE file, intptr_t key)
    {
        FILE_COMPLETION_INFORMATION binding{port, reinterpret_cast<PVOID>(key)};
        IO_STATUS_BLOCK block;
        return NtSetInformationFile(file, &block, &binding, sizeof binding, FileCompletionInformation);
    }

    NTSTATUS Control(HANDLE file, PIO_APC_ROUTINE routine, intptr_t context, HANDLE event = nullptr)
    {
        return NtDeviceIoControlFile(file, event, routine, reinterpret_cast<PVOID>(context), &block,
                                     Code(METHOD_NEITHER), nullptr, 0, nullptr, 0);
    }

    HANDLE port = nullptr;
    IO_STATUS_BLOCK block{};
};

TEST_F(Port, GivesPacketsInOrder)
{
    EXPECT_EQ(RemoveNow().Status, STATUS_TIMEOUT);
    Post(1, 10);
    Post(2, 20);
    LARGE_INTEGER now{};
    EXPECT_EQ(NtWaitForSingleObject(port, FALSE, &now), STATUS_SUCCESS); // takes nothing
    const Removed first = Remove(nullptr);
    EXPECT_EQ(first.Status, STATUS_SUCCESS);
    EXPECT_EQ(first.Key, 1);
    EXPECT_EQ(first.Context, 10);
    EXPECT_EQ(first.Block.Status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(first.Block.Information, 9u);
    EXPECT_EQ(RemoveNow().Key, 2);
    EXPECT_EQ(NtWaitForSingleObject(port, FALSE, &now), STATUS_TIMEOUT);
    EXPECT_EQ(RemoveNow().Status, STATUS_TIMEOUT);
}

TEST_F(Port, GivesSeveralAtOnceAndWaitsAlertably)
{
    FILE_IO_COMPLETION_INFORMATION entries[3]{};
    ULONG removed = 0;
    const auto remove = [&](ULONG count) {
        LARGE_INTEGER now{};
        return NtRemoveIoCompletionEx(port, entries, count, &removed, &now, TRUE);
    };
    for (intptr_t i = 1; i <= 4; ++i) Post(i, -i);
    EXPECT_EQ(remove(3), STATUS_SUCCESS);
    EXPECT_EQ(removed, 3u);
    EXPECT_EQ(entries[2].KeyContext, reinterpret_cast<PVOID>(3));
    EXPECT_EQ(entries[2].ApcContext, reinterpret_cast<PVOID>(-3));
    EXPECT_EQ(entries[2].IoStatusBlock.Information, 9u);
    EXPECT_EQ(remove(3), STATUS_SUCCESS);
    EXPECT_EQ(removed, 1u);
    EXPECT_EQ(remove(0), STATUS_INVALID_PARAMETER);
    static bool ran;
    ran = false;
    const PPS_APC_ROUTINE note = [](PVOID, PVOID, PVOID) NTAPI { ran = true; };
    ASSERT_EQ(NtQueueApcThread(NtCurrentThread(), note, nullptr, nullptr, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(RemoveNow().Status, STATUS_TIMEOUT); // which is not alertable
    EXPECT_EQ(remove(3), STATUS_USER_APC);
    EXPECT_TRUE(ran);
}

// As many threads as packets, each with one; the others learn that the port is closed.
TEST_F(Port, EachPacketReleasesOneThread)
{
    constexpr int threads = 4;
    std::atomic<intptr_t> sum{0};
    std::atomic<int> got{0}, abandoned{0};
    std::vector<std::thread> removers;
    for (int i = 0; i < threads; ++i)
        removers.push_back(nthost::StartThread(nthost::HostProcess(), [&] {
            for (;;) {
                const Removed removed = Remove(nullptr);
                if (removed.Status != STATUS_SUCCESS) {
                    abandoned += removed.Status == STATUS_ABANDONED_WAIT_0 || removed.Status == STATUS_INVALID_HANDLE;
                    return;
                }
                sum += removed.Key;
                ++got;
            }
        }));
    for (intptr_t i = 1; i <= 100; ++i) Post(i, 1);
    while (got < 100) std::this_thread::yield();
    EXPECT_EQ(sum, 5050);
    EXPECT_EQ(NtClose(port), STATUS_SUCCESS);
    for (std::thread& remover : removers) remover.join();
    EXPECT_EQ(abandoned, threads);
    port = nullptr;
}

struct Row {
    bool Pends;
    NTSTATUS Status;
    intptr_t Context;
    bool Skips; // successes that come at once
    bool Comes;
};

constexpr Row kRows[] = {
    {false, STATUS_SUCCESS, 5, false, true},         {false, STATUS_SUCCESS, 0, false, false}, // no context, no packet
    {false, STATUS_BUFFER_OVERFLOW, 5, false, true}, {false, STATUS_ACCESS_DENIED, 5, false, false},
    {true, STATUS_SUCCESS, 5, false, true},          {true, STATUS_ACCESS_DENIED, 5, false, true},
    {true, STATUS_SUCCESS, 0, false, false},         {false, STATUS_SUCCESS, 5, true, false},
    {false, STATUS_BUFFER_OVERFLOW, 5, true, true},  {true, STATUS_SUCCESS, 5, true, true},
};

TEST_F(Port, HearsOfTheEndsOfRequests)
{
    for (const Row& row : kRows) {
        SCOPED_TRACE(&row - kRows);
        const Opened opened = Open({.Options = Async});
        EXPECT_EQ(Bind(opened.Handle, 77), STATUS_SUCCESS);
        FILE_IO_COMPLETION_NOTIFICATION_INFORMATION skip{FILE_SKIP_COMPLETION_PORT_ON_SUCCESS};
        if (row.Skips) {
            EXPECT_EQ(NtSetInformationFile(opened.Handle, &block, &skip, sizeof skip,
                                           FileIoCompletionNotificationInformation),
                      STATUS_SUCCESS);
        }
        Parked parked;
        const Dispatch park = parked.Routine();
        Driver().Majors[IRP_MJ_DEVICE_CONTROL] = [&](PDEVICE_OBJECT target, PIRP irp) {
            return row.Pends ? park(target, irp) : Complete(irp, row.Status, 3);
        };
        EXPECT_EQ(Control(opened.Handle, nullptr, row.Context), row.Pends ? STATUS_PENDING : row.Status);
        if (row.Pends) Complete(parked.Await(), row.Status, 3);
        const Removed removed = RemoveNow();
        EXPECT_EQ(removed.Status, row.Comes ? STATUS_SUCCESS : STATUS_TIMEOUT);
        if (row.Comes) {
            EXPECT_EQ(removed.Key, 77);
            EXPECT_EQ(removed.Context, row.Context);
            EXPECT_EQ(removed.Block.Status, row.Status);
            EXPECT_EQ(removed.Block.Information, 3u);
        }
        NtClose(opened.Handle);
    }
}

TEST_F(Port, IsBoundOnceAndToAsynchronousFilesOnly)
{
    const Opened synchronous = Open();
    EXPECT_EQ(Bind(synchronous.Handle, 1), STATUS_INVALID_PARAMETER);
    NtClose(synchronous.Handle);
    const Opened opened = Open({.Options = Async});
    const auto unused = [](PVOID, PIO_STATUS_BLOCK, ULONG) NTAPI {};
    EXPECT_EQ(Bind(opened.Handle, 1), STATUS_SUCCESS);
    EXPECT_EQ(Bind(opened.Handle, 2), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Control(opened.Handle, unused, 1), STATUS_INVALID_PARAMETER); // one of the two would not be told
    FILE_COMPLETION_INFORMATION wrong{opened.Handle, nullptr};
    EXPECT_EQ(NtSetInformationFile(opened.Handle, &block, &wrong, sizeof wrong, FileCompletionInformation),
              STATUS_OBJECT_TYPE_MISMATCH);
    // A packet that nobody takes goes with the port; the file object keeps that.
    EXPECT_EQ(Control(opened.Handle, nullptr, 5), STATUS_SUCCESS);
    EXPECT_EQ(NtClose(port), STATUS_SUCCESS);
    port = nullptr;
    EXPECT_EQ(Control(opened.Handle, nullptr, 6), STATUS_SUCCESS);
    NtClose(opened.Handle);
}

TEST_F(Port, NotificationFlagsStay)
{
    const Opened opened = Open({.Options = Async});
    FILE_IO_COMPLETION_NOTIFICATION_INFORMATION flags{FILE_SKIP_SET_EVENT_ON_HANDLE};
    const auto set = [&](HANDLE file) {
        return NtSetInformationFile(file, &block, &flags, sizeof flags, FileIoCompletionNotificationInformation);
    };
    EXPECT_EQ(set(opened.Handle), STATUS_SUCCESS);
    flags.Flags = 0;
    EXPECT_EQ(set(opened.Handle), STATUS_SUCCESS);
    EXPECT_EQ(
        NtQueryInformationFile(opened.Handle, &block, &flags, sizeof flags, FileIoCompletionNotificationInformation),
        STATUS_SUCCESS);
    EXPECT_EQ(flags.Flags, FILE_SKIP_SET_EVENT_ON_HANDLE);
    EXPECT_EQ(Control(opened.Handle, nullptr, 0), STATUS_SUCCESS);
    LARGE_INTEGER now{};
    EXPECT_EQ(NtWaitForSingleObject(opened.Handle, FALSE, &now), STATUS_TIMEOUT);
    flags.Flags = 8;
    EXPECT_EQ(set(opened.Handle), STATUS_INVALID_PARAMETER);
    NtClose(opened.Handle);
    const Opened synchronous = Open();
    flags.Flags = FILE_SKIP_COMPLETION_PORT_ON_SUCCESS;
    EXPECT_EQ(set(synchronous.Handle), STATUS_INVALID_PARAMETER);
    NtClose(synchronous.Handle);
}

} // namespace
