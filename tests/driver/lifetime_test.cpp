// What must not be gone while somebody uses it: a volume in the middle of a deletion, a control block under a lock
// request, a name that is being read, a plugin handle that a rename replaces.

#include <atomic>
#include <thread>

#include <nthost/sections.h>

#include "objects/fcb.h"
#include "objects/tree.h"
#include "open_requests.h"
#include "support/file.h"
#include "support/view.h"

namespace opening {
namespace {

using support::Rename;

constexpr OpenRequest kAll = {.Access = FILE_GENERIC_READ | FILE_GENERIC_WRITE | DELETE};
constexpr OpenRequest kAsync = {.Access = FILE_READ_DATA | FILE_WRITE_DATA, .Options = 0};

class Lifetimes : public VolumeTest {
protected:
    // A read that the memory manager sends from inside of other work on this thread.
    NTSTATUS ReadNested(PFILE_OBJECT file, char* byte)
    {
        HandMade read(Device(), file, IRP_MJ_READ);
        read.Irp()->Flags |= IRP_PAGING_IO | IRP_SYNCHRONOUS_PAGING_IO;
        read.Irp()->UserBuffer = byte;
        read.Stack()->Parameters.Read.Length = 1;
        const InsideOtherWork inside;
        return read.Send();
    }
};

// Between its two trees a deleted object would be on neither, and a volume whose trees are empty may go.
TEST_F(Lifetimes, ADeletedObjectIsNeverOnNoTree)
{
    Handle file = OpenOrFail("\\dir\\sub\\deep",
                             {.Access = DELETE | SYNCHRONIZE, .Options = kSynchronous | FILE_DELETE_ON_CLOSE});
    FileReference kept(file.Get());
    std::vector<ULONG> counts;
    for (unsigned call = 1; call <= 4; ++call) // its own handle, and those of the directories that nobody needs then
        Plugin().Before(
            "Close", [&](PKEVENT) { counts.push_back(FcbCount()); }, call);
    file.Close();
    ASSERT_EQ(counts.size(), 4u);
    for (const ULONG count : counts) EXPECT_GE(count, 1u);
    EXPECT_EQ(FcbCount(), 1u);
}

// Then its directory is what keeps the volume.
TEST_F(Lifetimes, ADeletedObjectThatCannotChangeTreesKeepsItsDirectory)
{
    Handle file =
        OpenOrFail("\\dir\\file", {.Access = DELETE | SYNCHRONIZE, .Options = kSynchronous | FILE_DELETE_ON_CLOSE});
    FileReference kept(file.Get());
    Fcb* const fcb = Find("\\dir\\file");
    char hex[16];
    snprintf(hex, sizeof hex, "%x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(fcb)));
    Text key(std::string("\\dir\\file") + hex);
    GvTreeEntry inTheWay = {};
    {
        ServedRequest request(Device());
        ASSERT_STATUS(STATUS_SUCCESS, GvTreeAddEntry(Volume()->FcbTables->DeletionTree, key, &inTheWay));
    }
    file.Close();
    ServedRequest request(Device());
    FcbTables* const tables = Volume()->FcbTables;
    GvTreeRemoveEntryByVal(tables->DeletionTree, &inTheWay);
    EXPECT_EQ(FcbCount(), 2u); // \dir and the root
    // The rest of what the deletion had to do, so that nothing stays behind.
    ASSERT_NE(fcb->ParentFcb, nullptr);
    ASSERT_STATUS(STATUS_SUCCESS, GvTreeAddEntry(tables->DeletionTree, key, &fcb->TreeEntry));
    fcb->OnDeletionTree = 1;
    GvFcbDerefFcbAndParentChain(request.Context(), std::exchange(fcb->ParentFcb, nullptr));
}

// It stands in the queue while its handle goes. Granted now, it would stay for as long as the object lives.
class LockLifetimes : public Lifetimes {
protected:
    LockLifetimes() { SetWorkers(1); }
};

TEST_F(LockLifetimes, ALockRequestServedBehindItsHandlesCleanupLeavesNoLock)
{
    for (const bool another : {true, false}) { // else the request is all that keeps the object
        SCOPED_TRACE(another);
        Handle other = another ? OpenOrFail("\\file") : Handle();
        Handle busy = OpenOrFail("\\dir\\file", kAsync), file = OpenOrFail("\\file", kAsync);
        auto gate = Plugin().CloseGate("Read");
        char byte;
        support::Request read, lock;
        ASSERT_STATUS(STATUS_PENDING, read.StartRead(busy.Get(), &byte, 1, 0));
        gate->WaitForArrivals(1); // the only worker
        ASSERT_STATUS(STATUS_PENDING, lock.StartLock(file.Get(), 0, 4));
        file.Close();
        gate->Open();
        EXPECT_STATUS(STATUS_FILE_CLOSED, lock.Wait());
        EXPECT_STATUS(STATUS_SUCCESS, read.Wait());
        if (another) EXPECT_STATUS(STATUS_SUCCESS, Lock(other.Get(), {0, 4}));
        Plugin().RemoveGate("Read");
    }
}

TEST_F(Lifetimes, ANestedReadWaitsForTheHandleThatARenameReplaces)
{
    Handle file = OpenOrFail("\\file", kAll);
    const FileReference object(file.Get());
    auto gate = Plugin().CloseGate("Rename");
    std::thread renamer = InTheBackground([&] { EXPECT_STATUS(STATUS_SUCCESS, Rename(file.Get(), "other")); });
    gate->WaitForArrivals(1); // the old handle is closed
    std::atomic<NTSTATUS> status{STATUS_PENDING};
    char byte = 0;
    std::thread reader = InTheBackground([&] { status = ReadNested(object.Get(), &byte); });
    const auto* const fcb = static_cast<const Fcb*>(object->FsContext);
    // Either it waits, which it does with the plugin call that it has announced, or it has been turned away.
    const auto waits = [&] {
        GvHeldSpinLock lock(Volume()->PinLock);
        return Volume()->PluginCallCount == 2;
    };
    while (status == STATUS_PENDING && !waits()) std::this_thread::yield();
    EXPECT_EQ(GvLoad(fcb->PluginFdClosed), 1);
    gate->Open();
    renamer.join();
    reader.join();
    EXPECT_STATUS(STATUS_SUCCESS, status);
    EXPECT_EQ(byte, '0');
}

// A read that is inside the plugin keeps the handle that it has come with.
TEST_F(Lifetimes, AHandleIsNotClosedUnderANestedRead)
{
    struct Row {
        const char* What;
        std::function<void(HANDLE)> Replace;
    };
    const Row rows[] = {
        {"rename", [](HANDLE file) { EXPECT_STATUS(STATUS_SUCCESS, Rename(file, "other")); }},
        {"re-open", [this](HANDLE) { OpenOrFail("\\other", kAll); }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.What);
        const char* const path = row.What[2] == 'n' ? "\\file" : "\\other";
        Handle file = OpenOrFail(path, row.What[2] == 'n' ? kAll : OpenRequest{});
        const FileReference object(file.Get());
        auto gate = Plugin().CloseGate("Read");
        char byte = 0;
        std::thread reader = InTheBackground([&] { EXPECT_STATUS(STATUS_SUCCESS, ReadNested(object.Get(), &byte)); });
        gate->WaitForArrivals(1);
        std::atomic<bool> closing{false}, readRuns{false};
        Plugin().Before("Close", [&](PKEVENT) {
            for (const layer::PluginCall& call : Plugin().Calls())
                if (call.Operation == "Read" && call.Status == STATUS_PENDING) readRuns = true;
            closing = true;
        });
        std::thread replacer = InTheBackground([&] { row.Replace(file.Get()); });
        auto* const fcb = static_cast<Fcb*>(object->FsContext);
        while (!closing && !InterlockedCompareExchange(&fcb->HandleSwitching, 0, 0)) std::this_thread::yield();
        gate->Open();
        reader.join();
        replacer.join();
        EXPECT_TRUE(closing);
        EXPECT_FALSE(readRuns);
        Plugin().RemoveGate("Read");
        file.Close();
    }
}

// The name is copied with no lock of the volume's while renames replace it.
TEST_F(Lifetimes, ANestedQueryTellsANameThatARenameReplaces)
{
    Handle file = OpenOrFail("\\file", kAll);
    const FileReference object(file.Get());
    std::atomic<bool> stop{false};
    std::thread query = InTheBackground([&] {
        while (!stop) {
            char buffer[128] = {};
            HandMade request(Device(), object.Get(), IRP_MJ_QUERY_INFORMATION);
            request.Irp()->AssociatedIrp.SystemBuffer = buffer;
            request.Stack()->Parameters.QueryFile.Length = sizeof buffer;
            request.Stack()->Parameters.QueryFile.FileInformationClass = FileNameInformation;
            const InsideOtherWork inside;
            ASSERT_STATUS(STATUS_SUCCESS, request.Send());
            const auto* const info = reinterpret_cast<const FILE_NAME_INFORMATION*>(buffer);
            ASSERT_TRUE(info->FileNameLength == 2 * 5u || info->FileNameLength == 2 * 12u) << info->FileNameLength;
        }
    });
    for (int round = 0; round < 100; ++round)
        EXPECT_STATUS(STATUS_SUCCESS, Rename(file.Get(), round % 2 ? "file" : "longer.name"));
    stop = true;
    query.join();
}

// A wish to delete comes nested while a cleanup looks at it under the object's lock.
TEST_F(Lifetimes, ANestedDispositionMayMeetACleanup)
{
    Handle file = OpenOrFail("\\file", kAll);
    const FileReference object(file.Get());
    std::thread opener = InTheBackground([&] {
        for (int round = 0; round < 50; ++round) (void)Open("\\file");
    });
    for (int round = 0; round < 50; ++round) {
        FILE_DISPOSITION_INFORMATION wish = {.DeleteFile = FALSE};
        HandMade request(Device(), object.Get(), IRP_MJ_SET_INFORMATION);
        request.Irp()->AssociatedIrp.SystemBuffer = &wish;
        request.Stack()->Parameters.SetFile.Length = sizeof wish;
        request.Stack()->Parameters.SetFile.FileInformationClass = FileDispositionInformation;
        const InsideOtherWork inside;
        EXPECT_STATUS(STATUS_SUCCESS, request.Send());
    }
    opener.join();
}

// A rename that failed has left the object without a handle; the next open that needs one makes it whole again, and the
// plugin gets back every handle that it has given out.
TEST_F(Lifetimes, AReopenedHandleIsClosedAtTheEnd)
{
    {
        Handle file = OpenOrFail("\\file", {.Access = FILE_READ_DATA | DELETE | SYNCHRONIZE});
        Plugin().Fail("Rename", STATUS_DISK_FULL);
        EXPECT_STATUS(STATUS_DISK_FULL, Rename(file.Get(), "other"));
        EXPECT_EQ(ReadText(file.Get(), 1), "<STATUS_INVALID_PARAMETER>");
        Handle writer = OpenOrFail("\\file", kAll);
        EXPECT_EQ(ReadText(writer.Get(), 2), "01");
        EXPECT_EQ(ReadText(file.Get(), 2), "01");
    }
    int handles = 0;
    for (const layer::PluginCall& call : Plugin().Calls()) {
        if (NT_SUCCESS(call.Status)) handles += call.Operation.starts_with("Open") - (call.Operation == "Close");
    }
    EXPECT_EQ(handles, 0);
}

TEST_F(Lifetimes, AnEmptyTransferDescribesNoPages)
{
    Handle file = OpenOrFail("\\file", kAsync);
    support::Request read;
    char byte = 'x';
    const NTSTATUS status = read.StartRead(file.Get(), &byte, 0, 0);
    EXPECT_STATUS(STATUS_SUCCESS, status == STATUS_PENDING ? read.Wait() : status);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(Plugin().Count("Read"), 1u);
}

// The root that a plugin lets go of leaves nothing behind, however often.
TEST_F(Lifetimes, ADeletedRootGoes)
{
    for (int round = 0; round < 2; ++round) {
        Handle root = OpenOrFail("\\", {.Access = DELETE | SYNCHRONIZE | FILE_READ_ATTRIBUTES});
        Plugin().Fail("ReadDirEntry", STATUS_NO_MORE_FILES);
        EXPECT_STATUS(STATUS_SUCCESS, support::SetDelete(root.Get(), true));
        Plugin().Fail("ReadDirEntry", STATUS_NO_MORE_FILES);
        Plugin().Fail("Delete", STATUS_SUCCESS);
        root.Close();
        EXPECT_EQ(FcbCount(), 0u);
    }
}

} // namespace
} // namespace opening
