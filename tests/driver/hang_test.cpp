// Roads on which two requests could wait for each other: through a worker that everybody needs, a page that somebody is
// reading in, a close that is nested in a purge, an operation that never completes. One worker, and gates that put each
// request where it has to be.

#include <atomic>
#include <future>
#include <thread>

#include <nthost/sections.h>

#include "create/create.h"
#include "objects/fcb.h"
#include "open_requests.h"
#include "support/file.h"
#include "support/view.h"
#include "volume/volume.h"

namespace opening {
namespace {

using support::AtIrql;
using support::View;

constexpr OpenRequest kReadWrite = {.Access = FILE_GENERIC_READ | FILE_GENERIC_WRITE};
constexpr OpenRequest kAsync = {.Access = FILE_READ_DATA | FILE_WRITE_DATA, .Options = 0};

class Hangs : public VolumeTest {
protected:
    Hangs() { SetWorkers(1); }
    void TearDown() override
    {
        nthost::TrimSections();
        VolumeTest::TearDown();
    }

    // Many pages, with 'a' + page number in each.
    static constexpr size_t kPages = 20;
    Handle OpenPages(const char* path = "\\file", const OpenRequest& request = kReadWrite)
    {
        Handle file = OpenOrFail(path, kReadWrite);
        for (size_t page = 0; page < kPages; ++page) {
            const std::string data(PAGE_SIZE, static_cast<char>('a' + page));
            EXPECT_STATUS(STATUS_SUCCESS,
                          support::Write(file.Get(), data, static_cast<LONGLONG>(page * PAGE_SIZE)).Status);
        }
        TakeCalls();
        return request.Options == kReadWrite.Options ? std::move(file) : OpenOrFail(path, request);
    }
    static NTSTATUS WriteFrom(HANDLE file, const char* data, ULONG length)
    {
        IO_STATUS_BLOCK block = {};
        LARGE_INTEGER zero = {};
        return NtWriteFile(file, nullptr, nullptr, nullptr, &block, const_cast<char*>(data), length, &zero, nullptr);
    }
};

// What a section has kept of a file is let go of in the middle of a worker's write: the close comes nested there, and
// takes no lock of the volume under the file's. The lock-order check would report it.
TEST_F(Hangs, AFileClosedByAWorkersPurgeTakesNoVolumeLock)
{
    Handle writer = OpenPages("\\file", kAsync);
    {
        Handle mapped = OpenOrFail("\\file", kReadWrite);
        View view(mapped.Get());
        ASSERT_STATUS(STATUS_SUCCESS, view.Put(PAGE_SIZE, "view"));
    }
    char data[] = "write";
    IO_STATUS_BLOCK block = {};
    LARGE_INTEGER zero = {};
    const support::Event done;
    const NTSTATUS status =
        NtWriteFile(writer.Get(), done.Get(), nullptr, nullptr, &block, data, sizeof data - 1, &zero, nullptr);
    EXPECT_STATUS(STATUS_PENDING, status);
    done.Wait();
    EXPECT_STATUS(STATUS_SUCCESS, block.Status);
    EXPECT_EQ(ReadText(writer.Get(), 6, 0), "writea");
    EXPECT_EQ(ReadText(writer.Get(), 5, PAGE_SIZE), "viewb");
    EXPECT_EQ(Find("\\file")->OpenCount, 1);
}

// A plugin's operation runs inside of the request it serves, on whatever thread.
TEST_F(Hangs, APluginCannotOpenItsOwnVolumeFromAnOperation)
{
    Handle file = OpenOrFail("\\file", kAsync);
    std::atomic<NTSTATUS> opened{STATUS_PENDING};
    Plugin().Before("Read", [&](PKEVENT) { opened = Open("\\dir").Status; });
    EXPECT_EQ(ReadText(file.Get(), 1, 0), "0");
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, opened);
}

// The page writer holds the file's lock and cannot go on before its write has; a page that is read in cannot either.
// Ordinary requests, which may be waiting for both, fill the pool.
TEST_F(Hangs, PagingRequestsNeedNoWorkerOfThePool)
{
    Handle file = OpenPages();
    Handle busy = OpenOrFail("\\dir\\file", kAsync);
    View view(file.Get());
    ASSERT_STATUS(STATUS_SUCCESS, view.Put(0, "dirty"));
    const FileReference object(file.Get());

    std::promise<void> arrived, released;
    Plugin().Before("Read", [&](PKEVENT) {
        arrived.set_value();
        released.get_future().wait();
    });
    char byte = 0;
    Request read;
    ASSERT_STATUS(STATUS_PENDING, read.StartRead(busy.Get(), &byte, 1, 0));
    arrived.get_future().wait(); // the only worker of the pool stands there
    EXPECT_STATUS(STATUS_SUCCESS, nthost::StepModifiedPageWriter(object.Get()));
    std::string text;
    {
        const AtIrql irql(APC_LEVEL);
        EXPECT_STATUS(STATUS_SUCCESS, view.Get(PAGE_SIZE, &text, 2));
    }
    EXPECT_EQ(text, "bb");
    released.set_value();
    EXPECT_STATUS(STATUS_SUCCESS, read.Wait());
}

struct ViewWriteRow {
    const char* What;
    size_t Source; // page of the view where the data comes from
    ULONG Length;
    size_t Touched; // page that the other thread touches
    bool Dirty;     // the write then stands in the flush of another page, else in its first piece
};

// The toucher's paging read waits for the writer's lock; the writer's copy would wait for the toucher's page.
TEST_F(Hangs, AWriterDoesNotWaitForAPageThatWaitsForIt)
{
    for (const ViewWriteRow& row : {ViewWriteRow{"a piece", 2, 4, 2, true},
                                    ViewWriteRow{"what follows the first piece", 0, 18 * PAGE_SIZE, 17, false}}) {
        SCOPED_TRACE(row.What);
        Handle file = OpenPages();
        View view(file.Get());
        if (row.Dirty) EXPECT_STATUS(STATUS_SUCCESS, view.Put(9 * PAGE_SIZE, "dirty"));
        Fcb* const fcb = Find("\\file");
        auto gate = Plugin().CloseGate("Write");
        NTSTATUS written = STATUS_PENDING;
        std::thread writer = InTheBackground(
            [&] { written = WriteFrom(file.Get(), view.Address() + row.Source * PAGE_SIZE, row.Length); });
        gate->WaitForArrivals(1); // it holds the lock
        std::atomic<bool> touched{false};
        std::thread toucher = InTheBackground([&] {
            std::string text;
            EXPECT_STATUS(STATUS_SUCCESS, view.Get(row.Touched * PAGE_SIZE, &text, 1));
            touched = true;
        });
        while (!touched && ExGetSharedWaiterCount(fcb->Header.Resource) == 0) std::this_thread::yield();
        gate->Open();
        writer.join();
        toucher.join();
        EXPECT_STATUS(STATUS_SUCCESS, written);
        Plugin().RemoveGate("Write");
        EXPECT_EQ(ReadText(file.Get(), 1, 0), std::string(1, static_cast<char>('a' + row.Source)));
    }
}

// A reader into a view owns the lock shared and waits for the page; whoever reads the page in must get by a writer that
// waits for the lock exclusively.
TEST_F(Hangs, APagingReadIsNotHeldBackByAWaitingWriter)
{
    Handle file = OpenPages();
    Handle other = OpenOrFail("\\file", {.Access = FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE});
    View view(file.Get());
    Fcb* const fcb = Find("\\file");
    auto gate = Plugin().CloseGate("Read");
    char byte = 0;
    std::thread reader = InTheBackground([&] {
        IO_STATUS_BLOCK block = {};
        LARGE_INTEGER zero = {};
        (void)NtReadFile(file.Get(), nullptr, nullptr, nullptr, &block, &byte, 1, &zero, nullptr);
    });
    gate->WaitForArrivals(1);
    std::thread writer = InTheBackground([&] { EXPECT_STATUS(STATUS_SUCCESS, WriteFrom(other.Get(), "w", 1)); });
    while (ExGetExclusiveWaiterCount(fcb->Header.Resource) == 0) std::this_thread::yield();
    std::thread toucher = InTheBackground([&] { EXPECT_EQ(view.Text(5 * PAGE_SIZE, 1), "f"); });
    gate->WaitForArrivals(2); // its paging read is in the plugin, before the writer's turn
    gate->Open();
    for (std::thread* thread : {&reader, &writer, &toucher}) thread->join();
    EXPECT_EQ(byte, 'a');
}

// Nothing would ever complete the request, and the volume's lock may be held.
TEST_F(Hangs, AnOperationThatPendsFails)
{
    Handle file = OpenOrFail("\\file", kReadWrite);
    Handle volume = OpenOrFail("", kReadWrite);
    support::EaList eas;
    eas.Add("NAME", "value");
    struct Row {
        const char* Operation;
        std::function<NTSTATUS()> Ask;
    };
    FILE_FS_LABEL_INFORMATION label = {.VolumeLabelLength = 2, .VolumeLabel = {L'x'}};
    IO_STATUS_BLOCK block = {};
    const Row rows[] = {
        {"Read", [&] { return ReadText(file.Get(), 1) == "<STATUS_UNSUCCESSFUL>" ? STATUS_UNSUCCESSFUL : 0; }},
        {"Write", [&] { return support::Write(file.Get(), "x", 0).Status; }},
        {"FlushFile", [&] { return support::Flush(file.Get()); }},
        {"FlushVol", [&] { return support::Flush(volume.Get()); }},
        {"SetVolLabel",
         [&] { return support::SetVolume(volume.Get(), FileFsLabelInformation, &label, sizeof label).Status; }},
        {"SetEa",
         [&] {
             return NtSetEaFile(file.Get(), &block, const_cast<char*>(eas.Bytes().data()),
                                static_cast<ULONG>(eas.Bytes().size()));
         }},
        {"Lookup", [&] { return Open("\\dir\\file").Status; }},
        {"Open", [&] { return Open("\\dir\\file").Status; }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.Operation);
        Plugin().Fail(row.Operation, STATUS_PENDING);
        EXPECT_STATUS(STATUS_UNSUCCESSFUL, row.Ask());
        EXPECT_TRUE(Trace().Contains(std::string("ERR: plugin ") + row.Operation + "(): 0x103"));
    }
}

// Nobody further up holds anything of an open of the volume itself: its close is what the unmount waits for.
TEST_F(Hangs, ANestedCloseOfTheVolumeLetsARequestedUnmountGoOn)
{
    const PDEVICE_OBJECT device = Device();
    Fcb* const volume = Volume()->VolumeFcb;
    FILE_OBJECT file = {};
    file.DeviceObject = device;
    file.Flags = FO_SYNCHRONOUS_IO;
    ASSERT_STATUS(STATUS_SUCCESS, GvInitFileObj(&file, volume, false));
    InterlockedDecrement(&volume->HandleCount);
    ObReferenceObject(device);
    EXPECT_STATUS(STATUS_SUCCESS, Host().Services()->UnmountRequest(device));
    EXPECT_TRUE(Trace().Contains("unmount waits, pins: 0, plugin calls: 0, objects: 0, deleted: 0, volume opens: 1\n"));
    ForgetDevice();
    {
        HandMade close(device, &file, IRP_MJ_CLOSE);
        const InsideOtherWork inside;
        EXPECT_STATUS(STATUS_SUCCESS, close.Send());
    }
    ObDereferenceObject(device);
    Plugin().WaitUntilUnmounted();
}

} // namespace
} // namespace opening
