// Mapped files: what comes through a view and what through a handle agree, whichever wrote last; sections that outlive
// their handles; what a mapped file refuses; what a plugin's touches and locks do to the order of waits.

#include <atomic>
#include <thread>

#include <nthost/check.h>

#include "open_volume.h"

#include "support/file.h"
#include "support/view.h"

namespace opening {
namespace {

using support::View;

constexpr OpenRequest kReadWrite = {.Access = FILE_GENERIC_READ | FILE_GENERIC_WRITE | FILE_EXECUTE | DELETE};

class Mapped : public VolumeTest {
protected:
    void TearDown() override
    {
        nthost::TrimSections(); // which may still hold their files
        VolumeTest::TearDown();
    }
    // Three pages and a bit.
    static constexpr size_t kSize = 3 * PAGE_SIZE + 100;
    Handle OpenFilled()
    {
        Handle file = OpenOrFail("\\file", kReadWrite);
        std::string data;
        while (data.size() < kSize) data += "0123456789abcdef";
        data.resize(kSize);
        EXPECT_STATUS(STATUS_SUCCESS, support::Write(file.Get(), data, 0).Status);
        TakeCalls();
        return file;
    }
};

TEST_F(Mapped, FilesArePagedInByOneReadPerTouchedPage)
{
    Handle file = OpenFilled();
    View view(file.Get());
    ASSERT_STATUS(STATUS_SUCCESS, view.Status());
    EXPECT_EQ(view.Text(PAGE_SIZE + 5, 4), "5678");
    EXPECT_EQ(Plugin().Count("Read"), 1u);
    EXPECT_EQ(view.Text(PAGE_SIZE + 20, 4), "4567"); // the page is there
    EXPECT_EQ(Plugin().Count("Read"), 1u);
    EXPECT_EQ(view.Text(kSize - 1, 4).substr(1), std::string(3, '\0'));                // behind the end: zeros
    EXPECT_EQ(FileReference(file.Get())->CurrentByteOffset.QuadPart, LONGLONG(kSize)); // paging moves no position
}

TEST_F(Mapped, ViewsSeeWhatHandlesWriteAndHandlesWhatViewsWrite)
{
    Handle file = OpenFilled();
    View view(file.Get());
    EXPECT_EQ(view.Text(0, 4), "0123");
    EXPECT_STATUS(STATUS_SUCCESS, support::Write(file.Get(), "HANDLE", 0).Status);
    EXPECT_EQ(view.Text(0, 8), "HANDLE67");

    EXPECT_STATUS(STATUS_SUCCESS, view.Put(PAGE_SIZE, "VIEW"));
    TakeCalls();
    EXPECT_STATUS(STATUS_SUCCESS, view.Flush());
    EXPECT_EQ(TakeCalls(), Lines{"Write 4096 4096"}); // the page that was touched, in one call
    EXPECT_EQ(support::ReadText(file.Get(), 4, PAGE_SIZE), "VIEW");

    // A write through the handle brings out first what the view has changed, and loses none of it.
    EXPECT_STATUS(STATUS_SUCCESS, view.Put(2 * PAGE_SIZE, "KEEP"));
    EXPECT_STATUS(STATUS_SUCCESS, support::Write(file.Get(), "x", 2 * PAGE_SIZE + 1).Status);
    EXPECT_EQ(support::ReadText(file.Get(), 4, 2 * PAGE_SIZE), "KxEP");
    EXPECT_EQ(view.Text(2 * PAGE_SIZE, 4), "KxEP");
}

TEST_F(Mapped, ViewsAreBuffersOfReadsAndWritesOnAnyHandle)
{
    Handle file = OpenFilled();
    Handle other = OpenOrFail("\\dir\\file", {.Access = FILE_GENERIC_READ, .Options = 0}); // through a worker
    View view(file.Get());
    support::Request read;
    const NTSTATUS status = read.StartRead(other.Get(), view.Address() + PAGE_SIZE, 14, 0);
    EXPECT_STATUS(STATUS_SUCCESS, status == STATUS_PENDING ? read.Wait() : status);
    EXPECT_EQ(view.Text(PAGE_SIZE, 16), "in a directoryef");
    EXPECT_STATUS(STATUS_SUCCESS, view.Flush());
    EXPECT_EQ(support::ReadText(file.Get(), 14, PAGE_SIZE), "in a directory");
}

TEST_F(Mapped, ImagesRefuseWritersAndDeletion)
{
    Handle file = OpenFilled();
    View image(file.Get(), View::Kind::Image);
    ASSERT_STATUS(STATUS_SUCCESS, image.Status());
    EXPECT_EQ(image.Text(0, 4), "0123");
    EXPECT_STATUS(STATUS_SHARING_VIOLATION, Open("\\file", {.Access = FILE_GENERIC_WRITE}).Status);
    EXPECT_STATUS(
        STATUS_CANNOT_DELETE,
        Open("\\file", {.Access = FILE_GENERIC_READ | DELETE, .Options = kSynchronous | FILE_DELETE_ON_CLOSE}).Status);
    EXPECT_STATUS(STATUS_CANNOT_DELETE, support::SetDelete(file.Get(), true));
    image.Unmap();
    EXPECT_STATUS(STATUS_SUCCESS, Open("\\file", {.Access = FILE_GENERIC_WRITE}).Status);
}

// The section holds its file object when handle and view are gone; what lets go of it sends the close from there.
TEST_F(Mapped, SectionsOutliveHandlesUntilAPurge)
{
    const auto leaveSection = [this] {
        Handle file = OpenOrFail("\\dir\\sub\\deep", kReadWrite);
        View view(file.Get());
        EXPECT_STATUS(STATUS_SUCCESS, view.Put(0, "DEEP"));
    };
    leaveSection();
    EXPECT_EQ(FcbCount(), 4u); // still there, and so are its directories
    {
        Handle volume = OpenOrFail("", {.Access = FILE_GENERIC_READ | FILE_GENERIC_WRITE});
        EXPECT_STATUS(STATUS_SUCCESS, support::Flush(volume.Get())); // walks every file
        EXPECT_EQ(FcbCount(), 0u);
    }
    EXPECT_EQ(support::ReadText(OpenOrFail("\\dir\\sub\\deep").Get(), 4), "DEEP"); // and wrote it first

    leaveSection();
    Handle directory = OpenOrFail("\\dir", {.Access = FILE_LIST_DIRECTORY | DELETE | SYNCHRONIZE});
    EXPECT_STATUS(STATUS_SUCCESS, support::Rename(directory.Get(), "moved")); // nothing below is in use
    EXPECT_EQ(support::ReadText(OpenOrFail("\\moved\\sub\\deep").Get(), 4), "DEEP");

    Handle mapped = OpenOrFail("\\moved\\sub\\deep", kReadWrite);
    View view(mapped.Get());
    EXPECT_EQ(view.Text(0, 1), "D");
    mapped.Close();
    EXPECT_STATUS(STATUS_ACCESS_DENIED, support::Rename(directory.Get(), "again")); // a view is in use
    EXPECT_EQ(view.Text(0, 1), "D");
}

TEST_F(Mapped, SectionsKeepAReplacedFileFromTheTree)
{
    {
        Handle victim = OpenOrFail("\\dir\\file", kReadWrite);
        View view(victim.Get());
        EXPECT_EQ(view.Text(0, 2), "in");
    }
    Handle file = OpenOrFail("\\file", kReadWrite); // the victim has no handle and no view: its section is purged
    EXPECT_STATUS(STATUS_SUCCESS, support::Rename(file.Get(), "\\??\\Opening\\dir\\file", true));
    EXPECT_EQ(support::ReadText(OpenOrFail("\\dir\\file").Get(), 10), "0123456789");
}

TEST_F(Mapped, PagesThatDoNotComeAreExceptions)
{
    Handle file = OpenFilled();
    View view(file.Get());
    std::string text;
    Plugin().Fail("Read", STATUS_DISK_CORRUPT_ERROR);
    EXPECT_FALSE(NT_SUCCESS(view.Get(0, &text, 4)));
    EXPECT_EQ(view.Text(0, 4), "0123"); // the next touch asks again

    EXPECT_STATUS(STATUS_SUCCESS, view.Put(0, "kept"));
    Plugin().Fail("Write", STATUS_DISK_FULL);
    EXPECT_STATUS(STATUS_DISK_FULL, view.Flush());
    EXPECT_STATUS(STATUS_SUCCESS, view.Flush()); // still changed, and goes out now
    EXPECT_EQ(support::ReadText(file.Get(), 4, 0), "kept");

    // A write from a view whose pages do not come fails like one from any bad buffer.
    View source(OpenOrFail("\\dir\\file", kReadWrite).Get());
    Plugin().Fail("Read", STATUS_DISK_CORRUPT_ERROR);
    IO_STATUS_BLOCK block = {};
    LARGE_INTEGER zero = {};
    EXPECT_STATUS(STATUS_ACCESS_VIOLATION,
                  NtWriteFile(file.Get(), nullptr, nullptr, nullptr, &block, source.Address(), 4, &zero, nullptr));
}

TEST_F(Mapped, FilesAreWrittenByThePageWriterAsOneCall)
{
    Handle file = OpenFilled();
    View view(file.Get());
    EXPECT_STATUS(STATUS_SUCCESS, view.Put(PAGE_SIZE - 2, "over")); // two pages
    TakeCalls();
    FileReference object(file.Get());
    EXPECT_STATUS(STATUS_SUCCESS, nthost::StepModifiedPageWriter(object.Get()));
    EXPECT_EQ(TakeCalls(), Lines{"Write 0 8192"});
    EXPECT_EQ(nthost::DataSectionOf(object.Get()).DirtyPages, 0u);
    EXPECT_EQ(support::ReadText(file.Get(), 4, PAGE_SIZE - 2), "over");
}

// The file object through which the pages go is that of the handle that made the section, on its way out by then.
TEST_F(Mapped, FilesAreWrittenFromTheirPagesWhileTheirLastHandleGoes)
{
    Handle file = OpenFilled();
    View view(file.Get());
    EXPECT_STATUS(STATUS_SUCCESS, view.Put(0, "page"));
    std::atomic<bool> closed = false; // says when, and orders nothing
    std::thread flush = InTheBackground([&] {
        while (!closed.load(std::memory_order_relaxed)) std::this_thread::yield();
        EXPECT_STATUS(STATUS_SUCCESS, view.Flush());
    });
    file.Close();
    closed.store(true, std::memory_order_relaxed);
    flush.join();
    EXPECT_EQ(support::ReadText(OpenOrFail("\\file").Get(), 4), "page");
}

#if NTHOST_CHECKS

// What a plugin does in its operations goes into the order of waits too. Each of these does it on one thread.
class MappedOrder : public Mapped {
protected:
    void ExpectCycle(const std::string& text)
    {
        const auto findings = nthost::TakeFindings();
        ASSERT_EQ(findings.size(), 1u);
        EXPECT_EQ(findings[0].Rule, "lock-order-cycle");
        EXPECT_NE(findings[0].Detail.find(text), std::string::npos) << findings[0].Detail;
    }
};

TEST_F(MappedOrder, PluginsMayTouchAFilesPagesWhileItIsReadAndNotWhileItIsWritten)
{
    Handle file = OpenFilled();
    const View view(file.Get());
    EXPECT_EQ(view.Text(0, 4), "0123"); // read in under the file's lock, which may be shared
    const auto touch = [&](PKEVENT) { view.Text(2 * PAGE_SIZE, 1); };
    Plugin().Before("Read", touch);
    EXPECT_EQ(support::ReadText(file.Get(), 4, PAGE_SIZE), "0123");
    EXPECT_TRUE(nthost::TakeFindings().empty());

    const nthost::QuietFindings quiet;
    Plugin().Before("Write", touch);
    EXPECT_STATUS(STATUS_SUCCESS, support::Write(file.Get(), "x", 0).Status);
    ExpectCycle("by a thread that reads pages of \\file");
}

// The page writer's request is served by a worker while the writer has the file's lock.
TEST_F(MappedOrder, LocksOfAPluginsPagingWritesStandBehindTheFilesLock)
{
    ERESOURCE lock;
    ASSERT_STATUS(STATUS_SUCCESS, ExInitializeResourceLite(&lock));
    Handle file = OpenFilled();
    View view(file.Get());
    EXPECT_STATUS(STATUS_SUCCESS, view.Put(0, "over"));
    Plugin().Before("Write", [&](PKEVENT) {
        ExAcquireResourceExclusiveLite(&lock, TRUE);
        ExReleaseResourceLite(&lock);
    });
    FileReference object(file.Get());
    EXPECT_STATUS(STATUS_SUCCESS, nthost::StepModifiedPageWriter(object.Get()));

    const nthost::QuietFindings quiet;
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&lock, TRUE);
    EXPECT_STATUS(STATUS_SUCCESS, support::Write(file.Get(), "x", 0).Status);
    ExReleaseResourceLite(&lock);
    KeLeaveCriticalRegion();
    ExpectCycle("of device \\Device\\");
    ExDeleteResourceLite(&lock);
}

#endif

} // namespace
} // namespace opening
