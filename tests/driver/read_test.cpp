// Reading as no well-behaved program does it: bad buffers, odd requests, statuses of the plugin; and what the memory
// manager and nested callers are allowed.

#include <thread>

#include <nthost/process.h>
#include <nthost/user_memory.h>

#include "open_requests.h"

namespace opening {
namespace {

class Reading : public VolumeTest {};

// The plugin's word on lengths is final, and a failure of any severity moves nothing.
TEST_F(Reading, PassesOnWhatThePluginReports)
{
    for (const HandleKind& row : kHandleKinds) {
        SCOPED_TRACE(row.Name);
        Handle file = OpenOrFail("\\file", row.Request);
        FileReference object(file.Get());
        EXPECT_EQ(ReadText(file.Get(), 4, 3), "3456");
        EXPECT_EQ(ReadText(file.Get(), 100, 8), "89");
        EXPECT_EQ(ReadText(file.Get(), 0, 5), "");
        const LONGLONG position = object->CurrentByteOffset.QuadPart;
        EXPECT_EQ(position, row.Request.Options ? 5 : 0); // an asynchronous handle has no position
        EXPECT_EQ(ReadText(file.Get(), 1, 10), "<STATUS_END_OF_FILE>");
        for (const NTSTATUS status : {STATUS_IO_DEVICE_ERROR, STATUS_BUFFER_OVERFLOW}) {
            Plugin().Fail("Read", status);
            char buffer[4];
            const Outcome outcome = Read(file.Get(), buffer, sizeof buffer, 0);
            EXPECT_STATUS(status, outcome.Status);
            EXPECT_EQ(outcome.Information, 0u);
        }
        EXPECT_EQ(object->CurrentByteOffset.QuadPart, position);
    }
}

TEST_F(Reading, WantsAFile)
{
    for (const HandleKind& row : kHandleKinds) {
        for (const char* path : {"\\dir", ""}) {
            SCOPED_TRACE(std::string(row.Name) + " '" + path + "'");
            Handle file = OpenOrFail(path, row.Request);
            Plugin().Clear();
            EXPECT_EQ(ReadText(file.Get(), 1, 0), "<STATUS_OBJECT_TYPE_MISMATCH>");
            EXPECT_EQ(Plugin().Count("Read"), 0u);
        }
    }
}

// A user-mode caller's address that goes bad after the service has looked at it: found by the driver's probe, or by the
// plugin's own touch.
TEST_F(Reading, SurvivesABufferThatFaults)
{
    nthost::UserMemory memory(2 * PAGE_SIZE);
    Handle file = OpenOrFail("\\file");
    FileReference object(file.Get());
    struct Row {
        const char* What;
        std::function<void()> Spoil;
        KPROCESSOR_MODE Mode;
        size_t PluginCalls;
        const char* Trace;
    };
    const Row rows[] = {
        {"unmapped, user", [&] { memory.Unmap(); }, UserMode, 0, "EXCEPTION: 0xc0000005, bad user-buffer\n"},
        {"read-only, user", [&] { memory.Protect(true, false); }, UserMode, 0, "bad user-buffer\n"},
        {"unmapped, kernel", [&] { memory.Unmap(); }, KernelMode, 1, "Read(): 0xc0000005\n"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.What);
        memory.Map();
        memory.Protect(true, true);
        Plugin().Clear();
        Trace().Clear();
        HandMade read(Device(), object.Get(), IRP_MJ_READ);
        read.Irp()->UserBuffer = memory.Address();
        read.Irp()->RequestorMode = row.Mode;
        read.Stack()->Parameters.Read.Length = 10;
        row.Spoil();
        EXPECT_STATUS(STATUS_ACCESS_VIOLATION, read.Send());
        EXPECT_EQ(read.Information(), 0u);
        EXPECT_EQ(Plugin().Calls().size(), row.PluginCalls);
        EXPECT_TRUE(Trace().Contains(row.Trace)) << support::Join(Trace().Texts());
    }
    memory.Map();
    memory.Protect(true, true);
    EXPECT_EQ(ReadText(file.Get(), 3, 0), "012"); // nothing was left held
}

// The address that a user-mode program gives dies while the plugin runs: the fault ends in the plugin's guard.
TEST_F(Reading, SurvivesABufferThatGoesAwayUnderThePlugin)
{
    nthost::UserMemory memory(PAGE_SIZE);
    Handle file = OpenOrFail("\\file");
    Plugin().Before("Read", [&](PKEVENT) { memory.Unmap(); });
    EXPECT_STATUS(STATUS_ACCESS_VIOLATION, Read(file.Get(), memory.Address(), 10, 0).Status);
    memory.Map();
    EXPECT_EQ(Read(file.Get(), memory.Address(), 10, 0).Information, 10u);
}

struct OddRow {
    const char* What;
    UCHAR Minor;
    bool WithBuffer;
    NTSTATUS Expected;
};

TEST_F(Reading, RefusesOddRequests)
{
    Handle file = OpenOrFail("\\file");
    FileReference object(file.Get());
    char buffer[4];
    const OddRow rows[] = {
        {"plain", 0, true, STATUS_SUCCESS},
        {"MDL", IRP_MN_MDL, true, STATUS_INVALID_PARAMETER},
        {"MDL with other bits", IRP_MN_MDL | IRP_MN_COMPLETE, true, STATUS_INVALID_PARAMETER},
        {"no buffer, no length", 0, false, STATUS_UNSUCCESSFUL},
    };
    for (const OddRow& row : rows) {
        SCOPED_TRACE(row.What);
        HandMade read(Device(), object.Get(), IRP_MJ_READ, row.Minor);
        if (row.WithBuffer) read.Irp()->UserBuffer = buffer;
        read.Stack()->Parameters.Read.Length = row.WithBuffer ? sizeof buffer : 0;
        EXPECT_STATUS(row.Expected, read.Send());
    }
}

// Nested in work that holds the file's lock exclusively, a read must not wait for it.
TEST_F(Reading, NestedReadTakesNoLock)
{
    Handle file = OpenOrFail("\\file");
    FileReference object(file.Get());
    Fcb* const fcb = Find("\\file");
    char buffer[4] = {};
    HandMade read(Device(), object.Get(), IRP_MJ_READ);
    read.Irp()->UserBuffer = buffer;
    read.Stack()->Parameters.Read.Length = sizeof buffer;

    // Another thread owns the lock until the read is through.
    KEVENT held, release;
    KeInitializeEvent(&held, NotificationEvent, FALSE);
    KeInitializeEvent(&release, NotificationEvent, FALSE);
    std::thread owner = nthost::StartThread(nthost::HostProcess(), [&] {
        KeEnterCriticalRegion();
        ExAcquireResourceExclusiveLite(fcb->Header.Resource, TRUE);
        KeSetEvent(&held, IO_NO_INCREMENT, FALSE);
        KeWaitForSingleObject(&release, Executive, KernelMode, FALSE, nullptr);
        ExReleaseResourceLite(fcb->Header.Resource);
        KeLeaveCriticalRegion();
    });
    KeWaitForSingleObject(&held, Executive, KernelMode, FALSE, nullptr);
    {
        const InsideOtherWork inside;
        EXPECT_STATUS(STATUS_SUCCESS, read.Send());
    }
    KeSetEvent(&release, IO_NO_INCREMENT, FALSE);
    owner.join();
    EXPECT_EQ(std::string(buffer, 4), "0123");
}

// Several reads of one file are inside the plugin at once.
TEST_F(Reading, RunsSideBySide)
{
    Handle files[3];
    for (Handle& file : files) file = OpenOrFail("\\file");
    const auto gate = Plugin().CloseGate("Read");
    std::vector<std::thread> threads;
    for (Handle& file : files) {
        threads.push_back(
            nthost::StartThread(nthost::HostProcess(), [&] { EXPECT_EQ(ReadText(file.Get(), 10, 0), "0123456789"); }));
    }
    gate->WaitForArrivals(3);
    gate->Open();
    for (std::thread& thread : threads) thread.join();
}

} // namespace
} // namespace opening
