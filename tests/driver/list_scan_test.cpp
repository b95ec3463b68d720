// The course of a scan: where a query begins, what moves it, what a failure leaves, who may ask.

#include <nthost/faults.h>
#include <nthost/user_memory.h>

#include "open_requests.h"

namespace opening {
namespace {

constexpr OpenRequest kDirectory = {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE};
const Query kOne = {.Single = true};

// The root lists as: dir empty file link readonly.
class Scan : public VolumeTest {
protected:
    void SetUp() override
    {
        VolumeTest::SetUp();
        directory = OpenOrFail("\\", kDirectory);
    }
    void TearDown() override
    {
        directory.Close();
        VolumeTest::TearDown();
    }

    // By hand: no service gives an index.
    Listed QueryBy(UCHAR flags, ULONG index, UCHAR minor = IRP_MN_QUERY_DIRECTORY,
                   FILE_INFORMATION_CLASS infoClass = FileNamesInformation)
    {
        alignas(8) static UCHAR buffer[4096];
        FileReference object(directory.Get());
        HandMade query(Device(), object.Get(), IRP_MJ_DIRECTORY_CONTROL, minor);
        query.Irp()->UserBuffer = buffer;
        query.Stack()->Flags = flags;
        auto& parameters = query.Stack()->Parameters.QueryDirectory;
        parameters.Length = sizeof buffer;
        parameters.FileInformationClass = infoClass;
        parameters.FileIndex = index;
        Listed listed{query.Send(), query.Information(), {}, {}};
        if (NT_SUCCESS(listed.Status)) Decode(buffer, listed.Information, infoClass, &listed);
        return listed;
    }

    Handle directory;
};

TEST_F(Scan, RestartsAndResumesByIndex)
{
    EXPECT_EQ(List(directory.Get(), kOne).Names, (Lines{"dir"}));
    // The entry behind the one whose record carried the index.
    EXPECT_EQ(QueryBy(SL_INDEX_SPECIFIED | SL_RETURN_SINGLE_ENTRY, 2).Names, (Lines{"link"}));
    EXPECT_EQ(List(directory.Get()).Names, (Lines{"readonly"}));
    EXPECT_EQ(QueryBy(SL_INDEX_SPECIFIED, 0).Indexes, (std::vector<ULONG>{1, 2, 3, 4}));
    // A restart is stronger.
    EXPECT_EQ(QueryBy(SL_INDEX_SPECIFIED | SL_RESTART_SCAN | SL_RETURN_SINGLE_ENTRY, 2).Names, (Lines{"dir"}));
    EXPECT_STATUS(STATUS_NO_MORE_FILES, QueryBy(SL_INDEX_SPECIFIED, 4).Status);
    // The end is no state: what appears behind it is found.
    MakeFile("\\zz");
    EXPECT_EQ(List(directory.Get()).Names, (Lines{"zz"}));
}

struct DeletionRow {
    const char* What;
    UCHAR Flags;
    const char* Next;
};

// A deletion since the scan began: the caller may see an entry twice, it misses none.
TEST_F(Scan, StartsOverAfterADeletion)
{
    const DeletionRow rows[] = {
        {"plain", 0, "dir"},
        {"an index of the old numbering", SL_INDEX_SPECIFIED, "dir"},
        {"restart", SL_RESTART_SCAN, "dir"},
    };
    for (const DeletionRow& row : rows) {
        SCOPED_TRACE(row.What);
        EXPECT_EQ(List(directory.Get(), {.Single = true, .Restart = true}).Names, (Lines{"dir"}));
        EXPECT_EQ(List(directory.Get(), kOne).Names, (Lines{"empty"}));
        InterlockedIncrement(&Find("\\")->ChildDeleteCount);
        Trace().Clear();
        EXPECT_EQ(QueryBy(row.Flags | SL_RETURN_SINGLE_ENTRY, 3).Names, (Lines{row.Next}));
        EXPECT_EQ(Trace().Count("resetting dir-list scan-index\n"), 1u);
        EXPECT_EQ(List(directory.Get(), kOne).Names, (Lines{"empty"})); // once only
    }
    // Before a scan has begun there is nothing to repeat.
    Handle fresh = OpenOrFail("\\", kDirectory);
    InterlockedIncrement(&Find("\\")->ChildDeleteCount);
    Trace().Clear();
    EXPECT_EQ(List(fresh.Get(), kOne).Names, (Lines{"dir"}));
    EXPECT_EQ(List(fresh.Get(), kOne).Names, (Lines{"empty"}));
    EXPECT_FALSE(Trace().Contains("resetting dir-list scan-index\n"));
}

// The ordinals behind the deleted entry have moved down by one.
TEST_F(Scan, MissesNothingWhenAnEntryGoes)
{
    for (int i = 0; i < 9; ++i) MakeFile("\\empty\\" + std::to_string(i));
    for (const HandleKind& kind : kHandleKinds) {
        SCOPED_TRACE(kind.Name);
        MakeFile("\\empty\\1a");
        OpenRequest list = kind.Request;
        list.Access |= FILE_LIST_DIRECTORY;
        Handle scan = OpenOrFail("\\empty", list);
        Lines seen;
        for (int i = 0; i < 6; ++i) {
            const Lines one = List(scan.Get(), kOne).Names;
            seen.insert(seen.end(), one.begin(), one.end());
        }
        EXPECT_EQ(seen, (Lines{".", "..", "0", "1", "1a", "2"}));
        OpenOrFail("\\empty\\1a", {.Access = DELETE | SYNCHRONIZE, .Options = kSynchronous | FILE_DELETE_ON_CLOSE});
        EXPECT_EQ(ListAll(scan.Get()), (Lines{".", "..", "0", "1", "2", "3", "4", "5", "6", "7", "8"}));
    }
}

TEST_F(Scan, IsEachHandlesOwn)
{
    Handle other = OpenOrFail("\\", kDirectory);
    EXPECT_EQ(List(directory.Get(), {.Single = true, .Pattern = "*e*"}).Names, (Lines{"empty"}));
    EXPECT_EQ(List(other.Get(), kOne).Names, (Lines{"dir"}));
    EXPECT_EQ(List(directory.Get(), kOne).Names, (Lines{"file"}));
    EXPECT_EQ(List(other.Get(), kOne).Names, (Lines{"empty"}));
    // Neither a later name nor a restart changes the pattern.
    EXPECT_EQ(List(directory.Get(), {.Restart = true, .Pattern = "dir"}).Names, (Lines{"empty", "file", "readonly"}));
    EXPECT_STATUS(STATUS_NO_MORE_FILES, List(directory.Get(), {.Pattern = "dir"}).Status);
}

// What a pattern matches is the host's matter.
TEST_F(Scan, TellsAPatternWithoutAMatchFromTheEnd)
{
    EXPECT_STATUS(STATUS_NO_SUCH_FILE, List(directory.Get(), {.Pattern = "fil"}).Status);
    EXPECT_STATUS(STATUS_NO_MORE_FILES, List(directory.Get()).Status);
}

// What a query had placed when something went wrong is counted and stays; the scan stands on the entry that failed.
TEST_F(Scan, StandsOnTheEntryThatFailed)
{
    struct Row {
        const char* What;
        std::function<void()> Break;
        NTSTATUS Expected;
    };
    const Row rows[] = {
        {"fails", [&] { Plugin().Fail("ReadDirEntry", STATUS_IO_DEVICE_ERROR, 3); }, STATUS_IO_DEVICE_ERROR},
        {"raises", [&] { Plugin().Raise("ReadDirEntry", STATUS_DATA_ERROR, 3); }, STATUS_ACCESS_VIOLATION},
        {"faults", [&] { Plugin().Fault("ReadDirEntry", 3); }, STATUS_ACCESS_VIOLATION},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.What);
        row.Break();
        const Listed broken = QueryBy(SL_RESTART_SCAN, 0);
        EXPECT_STATUS(row.Expected, broken.Status);
        EXPECT_EQ(broken.Information, 24u + 32u); // dir, empty
        EXPECT_EQ(List(directory.Get(), kOne).Names, (Lines{"file"}));
    }
}

// Whether the entry matches is not known then, so it is not passed over.
TEST_F(Scan, AMatchWithoutMemoryLosesNoEntry)
{
    {
        const nthost::FaultPlan fault("FsRtlIsNameInExpression", 3);
        EXPECT_STATUS(STATUS_INSUFFICIENT_RESOURCES, List(directory.Get(), {.Pattern = "*e*"}).Status);
    }
    EXPECT_EQ(List(directory.Get()).Names, (Lines{"file", "readonly"})); // empty was in the buffer
}

// The buffer ends inside the third record's page: two records stand before the fault.
TEST_F(Scan, SurvivesABufferThatFaultsMidway)
{
    nthost::UserMemory memory(2 * PAGE_SIZE);
    FileReference object(directory.Get());
    for (const bool goesAway : {false, true}) {
        SCOPED_TRACE(goesAway);
        memory.Map();
        Plugin().Clear();
        // Into the last 60 bytes of a page that nothing follows: dir takes 24 and empty 32.
        char* const buffer = memory.Address() + 2 * PAGE_SIZE - 56;
        HandMade query(Device(), object.Get(), IRP_MJ_DIRECTORY_CONTROL, IRP_MN_QUERY_DIRECTORY);
        query.Irp()->UserBuffer = buffer;
        query.Irp()->RequestorMode = goesAway ? UserMode : KernelMode;
        query.Stack()->Flags = SL_RESTART_SCAN;
        query.Stack()->Parameters.QueryDirectory.FileInformationClass = FileNamesInformation;
        query.Stack()->Parameters.QueryDirectory.Length = goesAway ? 56 : 4096;
        if (goesAway)
            Plugin().Before(
                "ReadDirEntry", [&](PKEVENT) { memory.Unmap(); }, 2);
        EXPECT_STATUS(STATUS_ACCESS_VIOLATION, query.Send());
        EXPECT_EQ(query.Information(), goesAway ? 24u : 56u);
        EXPECT_TRUE(Trace().Contains("EXCEPTION: 0xc0000005, (2) bad user-buffer\n"));
        EXPECT_EQ(List(directory.Get(), kOne).Names, (Lines{goesAway ? "empty" : "file"}));
    }
    // Found at once when a user-mode caller's range is bad from the start; the scan has not moved.
    memory.Map();
    HandMade query(Device(), object.Get(), IRP_MJ_DIRECTORY_CONTROL, IRP_MN_QUERY_DIRECTORY);
    query.Irp()->UserBuffer = memory.Address() + PAGE_SIZE;
    query.Irp()->RequestorMode = UserMode;
    query.Stack()->Parameters.QueryDirectory.FileInformationClass = FileNamesInformation;
    query.Stack()->Parameters.QueryDirectory.Length = 2 * PAGE_SIZE;
    Plugin().Clear();
    EXPECT_STATUS(STATUS_ACCESS_VIOLATION, query.Send());
    EXPECT_TRUE(Trace().Contains("EXCEPTION: 0xc0000005, (1) bad user-buffer\n"));
    EXPECT_TRUE(Plugin().Calls().empty());
    EXPECT_EQ(List(directory.Get(), kOne).Names, (Lines{"file"}));
}

TEST_F(Scan, ScreensItsRequests)
{
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, QueryBy(0, 0, 7).Status);
    EXPECT_TRUE(Trace().Contains("unsupported minor function: 0x7\n"));
    for (const int infoClass : {0, int(FileBasicInformation), 60}) {
        const auto value = static_cast<FILE_INFORMATION_CLASS>(infoClass);
        EXPECT_STATUS(STATUS_INVALID_INFO_CLASS, QueryBy(0, 0, IRP_MN_QUERY_DIRECTORY, value).Status);
    }
    {
        const InsideOtherWork inside;
        EXPECT_STATUS(STATUS_INVALID_PARAMETER, QueryBy(0, 0).Status);
    }
    Find("\\")->PluginFdClosed = 1;
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, QueryBy(0, 0).Status);
    Find("\\")->PluginFdClosed = 0;
    Handle file = OpenOrFail("\\file");
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, List(file.Get()).Status);
    const auto notify = [](HANDLE handle) {
        char buffer[64];
        IO_STATUS_BLOCK block = {};
        return NtNotifyChangeDirectoryFile(handle, nullptr, nullptr, nullptr, &block, buffer, sizeof buffer,
                                           FILE_NOTIFY_CHANGE_FILE_NAME, FALSE);
    };
    EXPECT_STATUS(STATUS_NOT_SUPPORTED, notify(directory.Get()));
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, notify(file.Get()));
    EXPECT_EQ(List(directory.Get(), kOne).Names, (Lines{"dir"})); // nothing of that moved the scan
}

// A listing never leaves its caller's thread.
TEST_F(Scan, ServesAnAsynchronousHandleAtOnce)
{
    Handle scan = OpenOrFail("\\", {.Access = FILE_LIST_DIRECTORY, .Options = 0});
    std::thread::id served;
    Plugin().Before("ReadDirEntry", [&](PKEVENT) { served = std::this_thread::get_id(); });
    EXPECT_EQ(List(scan.Get()).Names.size(), 5u);
    EXPECT_TRUE(served == std::this_thread::get_id());
    EXPECT_TRUE(Trace().Contains("treating async dir-ctrl as sync\n"));
}

} // namespace
} // namespace opening
