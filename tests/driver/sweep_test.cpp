// One workload of opens, reads, listings, locks and closes, with one failure injected at each place in turn: nothing
// crashes, every request ends, nothing stays behind, and the same work then succeeds.

#include <nthost/faults.h>

#include "open_requests.h"

namespace opening {
namespace {

constexpr char kComposed[] = "\\dir\\caf\xc3\xa9";
constexpr char kDecomposed[] = "\\dir\\cafe\xcc\x81"; // normalised to the other

class Sweep : public VolumeTest {
protected:
    void SetUp() override
    {
        VolumeTest::SetUp();
        MakeFile(kComposed, "coffee");
        ExpectWorks();
    }

    // Statuses of what failed. Work that a failure makes impossible is left out.
    using Failures = std::vector<NTSTATUS>;

    Handle OpenAndNote(const std::string& path, const OpenRequest& request, Failures* failures)
    {
        OpenResult opened = Open(path, request);
        if (!NT_SUCCESS(opened.Status)) failures->push_back(opened.Status);
        return std::move(opened.File);
    }

    static void Note(NTSTATUS status, Failures* failures)
    {
        if (!NT_SUCCESS(status)) failures->push_back(status);
    }

    void ListDirectory(const std::string& pattern, std::vector<Handle>* handles, Failures* failures)
    {
        Handle directory = OpenAndNote("\\dir", {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE}, failures);
        if (!directory.Get()) return;
        NTSTATUS status;
        do {
            status = List(directory.Get(), {.Length = 64, .Pattern = pattern}).Status;
        } while (NT_SUCCESS(status));
        if (status != STATUS_NO_MORE_FILES && status != STATUS_NO_SUCH_FILE) failures->push_back(status);
        handles->push_back(std::move(directory));
    }

    // Each use has a range of its own: a lock that cannot be given up stays until the close.
    void UseFile(const OpenRequest& request, std::vector<Handle>* handles, Failures* failures)
    {
        Handle file = OpenAndNote(kDecomposed, request, failures);
        if (!file.Get()) return;
        char byte;
        const auto place = static_cast<LONGLONG>(handles->size());
        Note(Read(file.Get(), &byte, 1, place).Status, failures);
        const NTSTATUS locked = Lock(file.Get(), {place, 1});
        Note(locked, failures);
        if (NT_SUCCESS(locked)) Note(Unlock(file.Get(), {place, 1}), failures);
        handles->push_back(std::move(file));
    }

    // The handles stay open, for the caller to close.
    Failures Work(std::vector<Handle>* handles)
    {
        Failures failures;
        ListDirectory("", handles, &failures);
        ListDirectory("*\xc3\xa9", handles, &failures);
        for (const HandleKind& kind : kHandleKinds) {
            UseFile(kind.Request, handles, &failures);
            OpenRequest writer = kind.Request; // has the plugin's handle opened again
            writer.Access |= FILE_WRITE_DATA;
            UseFile(writer, handles, &failures);
        }
        return failures;
    }

    Failures WorkAndClose()
    {
        std::vector<Handle> handles;
        return Work(&handles);
    }

    // The last reference on an asynchronous handle's file object may be dropped by a system worker, so the close can
    // still be under way when the handle is gone.
    void WaitUntilIdle() GV_NO_ANALYSIS
    {
        Vcb* const vcb = Volume();
        while (FcbCount() != 0 || GvLoad(vcb->PinCount) != 0 || GvLoad(vcb->PluginCallCount) != 0)
            std::this_thread::yield();
    }

    void ExpectWorks()
    {
        EXPECT_EQ(WorkAndClose(), Failures{});
        WaitUntilIdle();
    }

    void ExpectNothingLeft()
    {
        WaitUntilIdle();
        {
            GvHeldSpinLock lock(Volume()->QueueLock);
            EXPECT_EQ(Volume()->PendedCount, 0u);
            for (const LIST_ENTRY& list : Volume()->PendedList) EXPECT_TRUE(IsListEmpty(&list));
            EXPECT_TRUE(IsListEmpty(&Volume()->ActiveList));
        }
        ExpectWorks();
    }

    // True if the call was made, and so failed.
    bool FailsOperation(const std::string& operation, unsigned n, bool raises)
    {
        SCOPED_TRACE(operation + " " + std::to_string(n) + (raises ? " raises" : " fails"));
        Plugin().Clear();
        raises ? Plugin().Raise(operation, STATUS_DISK_CORRUPT_ERROR, n)
               : Plugin().Fail(operation, STATUS_DISK_CORRUPT_ERROR, n);
        const Failures failures = WorkAndClose();
        for (const NTSTATUS status : failures)
            EXPECT_STATUS(raises ? STATUS_ACCESS_VIOLATION : STATUS_DISK_CORRUPT_ERROR, status);
        WaitUntilIdle();
        const bool reached = Plugin().Count(operation) >= n;
        if (!reached) (void)WorkAndClose(); // uses up what no call has
        ExpectNothingLeft();
        return reached;
    }
};

struct RoutineRow {
    const char* Routine;
    NTSTATUS Expected;
    unsigned LeastSites;
};

// Not the closes: one that cannot get its context ends without having closed anything.
TEST_F(Sweep, OverRoutinesThatFail)
{
    const RoutineRow rows[] = {
        {"ExAllocatePoolWithTag", STATUS_INSUFFICIENT_RESOURCES, 50},
        {"ExInitializeResourceLite", STATUS_INSUFFICIENT_RESOURCES, 6},
        {"IoAllocateMdl", STATUS_INSUFFICIENT_RESOURCES, 2},
        {"MmMapLockedPagesSpecifyCache", STATUS_UNSUCCESSFUL, 2},
        {"FsRtlPrivateLock", STATUS_INSUFFICIENT_RESOURCES, 4},
        {"FsRtlIsNameInExpression", STATUS_INSUFFICIENT_RESOURCES, 2},
    };
    for (const RoutineRow& row : rows) {
        bool injected = true;
        for (unsigned n = 1; injected; ++n) {
            SCOPED_TRACE(row.Routine + (" " + std::to_string(n)));
            std::vector<Handle> handles;
            Failures failures;
            {
                const nthost::FaultPlan plan(row.Routine, n);
                failures = Work(&handles);
                injected = plan.Injected() != 0;
            }
            handles.clear();
            for (const NTSTATUS status : failures) EXPECT_STATUS(row.Expected, status);
            ExpectNothingLeft();
            if (!injected) EXPECT_GT(n, row.LeastSites);
        }
    }
}

TEST_F(Sweep, OverPluginCallsThatFailOrRaise)
{
    for (const bool raises : {false, true}) {
        for (const char* operation :
             {"GetNormalizedPath", "Lookup", "Open", "OpenDir", "AccessCheck", "Read", "ReadDirEntry", "Close"}) {
            unsigned n = 1;
            while (FailsOperation(operation, n, raises)) ++n;
            EXPECT_GT(n, 2u) << operation;
        }
    }
}

// A plugin that writes a handle and then fails: the value is no handle, whether the object is opened for the first time
// or again.
struct HandleInFailure {
    static inline unsigned Calls;
    static NTSTATUS NTAPI Open(void*, PKEVENT, PCUNICODE_STRING, PluginAccessMask, PluginFd* fd)
    {
        ++Calls;
        *fd = 0x1234;
        return STATUS_IO_DEVICE_ERROR;
    }
};

TEST_F(Sweep, ClosesNoHandleOfAFailedOpen)
{
    const auto open = Plugin().Table()->Open;
    const auto failing = [&](const OpenRequest& request) {
        HandleInFailure::Calls = 0;
        Plugin().Table()->Open = HandleInFailure::Open;
        EXPECT_STATUS(STATUS_IO_DEVICE_ERROR, Open("\\file", request).Status);
        Plugin().Table()->Open = open;
        EXPECT_EQ(HandleInFailure::Calls, 1u);
    };
    Handle root = OpenOrFail("\\"); // which would be closed with the rest
    TakeCalls();
    failing({});
    EXPECT_EQ(Plugin().Count("Close"), 0u);
    Handle reader = OpenOrFail("\\file");
    TakeCalls();
    failing({.Access = FILE_WRITE_DATA | SYNCHRONIZE});
    EXPECT_EQ(TakeCalls(), (Lines{"Lookup \\file"}));
    EXPECT_EQ(ReadText(reader.Get(), 3), "012"); // the old handle stands
}

} // namespace
} // namespace opening
