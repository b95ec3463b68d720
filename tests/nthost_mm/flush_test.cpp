// Getting changes out and pages away: flush, purge, and the modified-page writer.
#include "minifs.h"

#include <semaphore>
#include <thread>

using namespace minifs;

namespace {

using Flush = MmTest;

IO_STATUS_BLOCK FlushFile(PFILE_OBJECT file, const LONGLONG* offset = nullptr, ULONG length = 0)
{
    LARGE_INTEGER from{};
    if (offset) from.QuadPart = *offset;
    IO_STATUS_BLOCK result;
    CcFlushCache(file->SectionObjectPointer, offset ? &from : nullptr, length, &result);
    return result;
}

BOOLEAN PurgeFile(PFILE_OBJECT file, const LONGLONG* offset = nullptr, ULONG length = 0)
{
    LARGE_INTEGER from{};
    if (offset) from.QuadPart = *offset;
    return CcPurgeCacheSection(file->SectionObjectPointer, offset ? &from : nullptr, length, FALSE);
}

// "offset+length" of each, in order.
std::string Shape(const std::vector<Seen>& requests)
{
    std::string shape;
    for (const Seen& seen : requests)
        shape += (shape.empty() ? "" : " ") + std::to_string(seen.Offset) + "+" + std::to_string(seen.Length);
    return shape;
}

using Strings = std::vector<std::string>;

struct RunRow {
    std::vector<size_t> Changed; // pages
    LONGLONG Offset;             // negative: the whole file
    ULONG Length;
    std::string Writes;
    size_t Left;
};

// The file has 20 pages and 100 bytes.
const RunRow kRuns[] = {
    {{}, -1, 0, "", 0},
    {{0}, -1, 0, "0+4096", 0},
    {{1, 2, 3, 7}, -1, 0, "4096+12288 28672+4096", 0},
    {{20}, -1, 0, "81920+100", 0}, // not beyond the file's end
    {{19, 20}, -1, 0, "77824+4196", 0},
    {{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}, -1, 0, "0+65536 65536+4096", 0}, // 16 pages at most
    {{1, 2, 3}, 4096 + 5, 4096, "4096+8192", 1},                                                  // bytes of two pages
    {{1, 2, 3}, 8192, 0, "8192+8192", 1},                                                         // from there on
    {{1}, 1 << 20, 4096, "", 1},
};

TEST_F(Flush, WritesRunsOfChangedPagesAndCleansThem)
{
    for (const RunRow& row : kRuns) {
        SCOPED_TRACE(&row - kRuns);
        Fs().File("\\f")->Data = std::string(20 * Page + 100, '.');
        File file("f");
        Mapped view(file.Handle());
        for (const size_t page : row.Changed) EXPECT_EQ(Poke(view.At(page * Page + 1), 'x'), STATUS_SUCCESS);
        Fs().Take();
        Fs().TakeCallbacks();
        const IO_STATUS_BLOCK result = FlushFile(file.Object(), row.Offset < 0 ? nullptr : &row.Offset, row.Length);
        EXPECT_EQ(result.Status, STATUS_SUCCESS);
        const std::vector<Seen> writes = Fs().TakePaging(IRP_MJ_WRITE);
        EXPECT_EQ(Shape(writes), row.Writes);
        ULONG_PTR bytes = 0;
        for (const Seen& write : writes) {
            bytes += write.Length;
            EXPECT_FALSE(write.TopLevel); // the acquire callback has marked the thread
        }
        EXPECT_EQ(result.Information, bytes);
        EXPECT_EQ(Fs().TakeCallbacks(), (Strings{"flush+", "flush-"}));
        EXPECT_EQ(nthost::DataSectionOf(file.Object()).DirtyPages, row.Left);
        EXPECT_EQ(FlushFile(file.Object()).Status, STATUS_SUCCESS);
        for (const size_t page : row.Changed) EXPECT_EQ(Fs().File("\\f")->Data[page * Page + 1], 'x');
        view.Unmap();
        EXPECT_TRUE(PurgeFile(file.Object()));
    }
}

TEST_F(Flush, ChangesAfterItAreNoticedAgain)
{
    Fs().File("\\f")->Data = std::string(Page, '.');
    File file("f");
    Mapped view(file.Handle()), other(file.Handle());
    for (const char value : {'1', '2', '3'}) {
        EXPECT_EQ(Poke(view.At(), value), STATUS_SUCCESS);
        EXPECT_EQ(Poke(other.At(1), value), STATUS_SUCCESS);
        EXPECT_EQ(FlushFile(file.Object()).Information, Page);
        EXPECT_EQ(FlushFile(file.Object()).Information, 0u);
        EXPECT_EQ(Fs().File("\\f")->Data.substr(0, 2), std::string(2, value));
    }
    EXPECT_EQ(Fs().TakePaging(IRP_MJ_READ).size(), 1u);
}

TEST_F(Flush, FailureIsToldAndThePagesStayChanged)
{
    Fs().File("\\f")->Data = std::string(4 * Page, '.');
    File file("f");
    Mapped view(file.Handle());
    for (const size_t page : {0, 2}) EXPECT_EQ(Poke(view.At(page * Page), 'x'), STATUS_SUCCESS);
    Fs().Before = [](const Seen& seen) { return seen.Offset == 0 ? STATUS_DISK_FULL : STATUS_SUCCESS; };
    IO_STATUS_BLOCK result = FlushFile(file.Object());
    EXPECT_EQ(result.Status, STATUS_DISK_FULL);
    EXPECT_EQ(result.Information, Page); // the other page went out
    EXPECT_EQ(nthost::DataSectionOf(file.Object()).DirtyPages, 1u);
    EXPECT_EQ(Fs().File("\\f")->Data[2 * Page], 'x');
    Fs().Before = nullptr;
    EXPECT_EQ(FlushFile(file.Object()).Status, STATUS_SUCCESS);
    EXPECT_EQ(Fs().File("\\f")->Data[0], 'x');

    EXPECT_EQ(Poke(view.At(), 'y'), STATUS_SUCCESS);
    Fs().AcquireStatus = STATUS_CANT_WAIT;
    EXPECT_EQ(FlushFile(file.Object()).Status, STATUS_CANT_WAIT);
    EXPECT_EQ(nthost::DataSectionOf(file.Object()).DirtyPages, 1u);
}

TEST_F(Flush, PurgeMakesTheNextTouchReadAnew)
{
    Fcb* const fcb = Fs().File("\\f");
    fcb->Data = std::string(3 * Page, 'a');
    File file("f");
    Mapped view(file.Handle());
    EXPECT_EQ(Bytes(view.At(), 3 * Page), std::string(3 * Page, 'a'));
    EXPECT_EQ(Poke(view.At(Page), 'x'), STATUS_SUCCESS); // a change that is lost
    fcb->Data = std::string(3 * Page, 'b');
    EXPECT_EQ(Bytes(view.At(), 1), "a");
    constexpr LONGLONG Second = Page;
    EXPECT_TRUE(PurgeFile(file.Object(), &Second, 1));
    EXPECT_EQ(nthost::DataSectionOf(file.Object()).PresentPages, 2u);
    EXPECT_EQ(nthost::DataSectionOf(file.Object()).DirtyPages, 0u);
    EXPECT_EQ(Bytes(view.At(), 1) + Bytes(view.At(Page), 1) + Bytes(view.At(2 * Page), 1), "aba");
    EXPECT_TRUE(PurgeFile(file.Object()));
    EXPECT_EQ(Bytes(view.At(), 1) + Bytes(view.At(Page), 1) + Bytes(view.At(2 * Page), 1), "bbb");
}

// What is written through a handle is seen through a view, and what the view has changed before is not lost.
TEST_F(Flush, FileSystemKeepsWritesAndViewsInLine)
{
    Fs().File("\\f")->Data = std::string(2 * Page, '.');
    File file("f");
    Mapped view(file.Handle());
    EXPECT_EQ(Poke(view.At(0), 'v'), STATUS_SUCCESS);
    EXPECT_EQ(file.Write(1, "hh", 2), STATUS_SUCCESS);
    EXPECT_EQ(Bytes(view.At(), 4), "vhh.");
    // Inside of the write, the flush takes no lock of its own.
    EXPECT_EQ(Fs().TakeCallbacks(), (Strings{"section+", "section-", "flush+", "flush-"}));
}

// A reader asked before the purge and gets its answer after it: the answer may be old, so it asks again.
TEST_F(Flush, PurgeDuringAReadMakesItRepeat)
{
    Fcb* const fcb = Fs().File("\\f");
    fcb->Data = std::string(Page, 'o');
    File file("f");
    Mapped view(file.Handle());
    std::binary_semaphore asked{0}, go{0};
    bool first = true;
    Fs().Before = [&](const Seen&) {
        if (!std::exchange(first, false)) return STATUS_SUCCESS;
        asked.release();
        go.acquire();
        return STATUS_SUCCESS;
    };
    std::thread reader = nthost::StartThread(nthost::HostProcess(), [&] { EXPECT_EQ(Bytes(view.At(), 1), "o"); });
    asked.acquire();
    EXPECT_TRUE(PurgeFile(file.Object())); // without waiting: the reader may be waiting for the purger's lock
    go.release();
    reader.join();
    EXPECT_EQ(Fs().TakePaging(IRP_MJ_READ).size(), 2u);
}

TEST_F(Flush, VirtualMemoryRange)
{
    Fs().File("\\f")->Data = std::string(4 * Page, '.');
    File file("f");
    Mapped view(file.Handle());
    for (size_t page = 0; page < 4; ++page) EXPECT_EQ(Poke(view.At(page * Page), 'x'), STATUS_SUCCESS);
    Fs().Take();
    struct {
        size_t Base;
        SIZE_T Size;
        NTSTATUS Status;
        std::string Writes;
        size_t BaseAfter;
        SIZE_T SizeAfter;
    } const rows[] = {
        {Page + 10, 10, STATUS_SUCCESS, "4096+4096", Page, Page},
        {2 * Page, 0, STATUS_SUCCESS, "8192+8192", 2 * Page, 2 * Page},
        {0, 5 * Page, STATUS_INVALID_PARAMETER_2, "", 0, 5 * Page}, // beyond the view
        {4 * Page + (1 << 20), 1, STATUS_NOT_MAPPED_VIEW, "", 4 * Page + (1 << 20), 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        void* base = view.At(row.Base);
        SIZE_T size = row.Size;
        IO_STATUS_BLOCK block{};
        EXPECT_EQ(NtFlushVirtualMemory(NtCurrentProcess(), &base, &size, &block), row.Status);
        EXPECT_EQ(block.Status, row.Status);
        EXPECT_EQ(Shape(Fs().TakePaging(IRP_MJ_WRITE)), row.Writes);
        EXPECT_EQ(base, view.At(row.BaseAfter));
        EXPECT_EQ(size, row.SizeAfter);
    }
    Fs().Before = [](const Seen&) { return STATUS_DISK_FULL; };
    void* base = view.At();
    SIZE_T size = 0;
    IO_STATUS_BLOCK block{};
    EXPECT_EQ(NtFlushVirtualMemory(NtCurrentProcess(), &base, &size, &block), STATUS_DISK_FULL);
}

TEST_F(Flush, ModifiedWriterHoldsTheFileForEachRun)
{
    Fs().File("\\f")->Data = std::string(4 * Page + 10, '.');
    File file("f");
    Mapped view(file.Handle());
    for (const size_t page : {0, 1, 4}) EXPECT_EQ(Poke(view.At(page * Page), 'x'), STATUS_SUCCESS);
    Fs().Take();
    Fs().TakeCallbacks();
    EXPECT_EQ(nthost::StepModifiedPageWriter(file.Object()), STATUS_SUCCESS);
    const std::vector<Seen> writes = Fs().TakePaging(IRP_MJ_WRITE);
    EXPECT_EQ(Shape(writes), "0+8192 16384+10");
    for (const Seen& write : writes) {
        EXPECT_EQ(write.Irql, APC_LEVEL);
        EXPECT_NE(write.Thread, PsGetCurrentThreadId());
        EXPECT_FALSE(write.TopLevel);
        EXPECT_FALSE(write.Flags & IRP_SYNCHRONOUS_PAGING_IO);
    }
    EXPECT_EQ(Fs().TakeCallbacks(), (Strings{"writer+ 8192", "writer-", "writer+ 16394", "writer-"}));
    EXPECT_EQ(nthost::DataSectionOf(file.Object()).DirtyPages, 0u);
    EXPECT_EQ(nthost::StepModifiedPageWriter(file.Object()), STATUS_SUCCESS);
    EXPECT_EQ(Fs().TakeCallbacks(), Strings{});

    // A file whose lock is taken is left for later.
    EXPECT_EQ(Poke(view.At(), 'y'), STATUS_SUCCESS);
    KeEnterCriticalRegion();
    ExAcquireResourceSharedLite(&Fs().File("\\f")->Resource, TRUE);
    EXPECT_EQ(nthost::StepModifiedPageWriter(file.Object()), STATUS_CANT_WAIT);
    ExReleaseResourceLite(&Fs().File("\\f")->Resource);
    KeLeaveCriticalRegion();
    EXPECT_EQ(nthost::DataSectionOf(file.Object()).DirtyPages, 1u);
}

// Without callbacks the resources of the common header do: which, and how, the header says.
TEST_F(Flush, WithoutCallbacksTheHeadersResourcesAreTaken)
{
    Start(Callbacks::None);
    Fcb* const fcb = Fs().File("\\f");
    fcb->Data = std::string(Page, '.');
    ERESOURCE paging;
    ASSERT_EQ(ExInitializeResourceLite(&paging), STATUS_SUCCESS);
    fcb->Header.PagingIoResource = &paging;
    File file("f");
    Mapped view(file.Handle());
    struct {
        UCHAR Flags;
        LONGLONG ValidData;
        bool MainShared, MainExclusive, PagingShared;
    } const rows[] = {
        {FSRTL_FLAG_ACQUIRE_MAIN_RSRC_EX, Page, false, true, false},
        {FSRTL_FLAG_ACQUIRE_MAIN_RSRC_SH, Page, true, false, false},
        {0, Page, false, false, true},
        {0, 10, false, true, false}, // the write moves the valid data
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        fcb->Header.Flags = row.Flags;
        fcb->Header.ValidDataLength.QuadPart = row.ValidData;
        EXPECT_EQ(Poke(view.At(), 'x'), STATUS_SUCCESS);
        int asked = 0;
        Fs().Before = [&](const Seen&) {
            ++asked;
            EXPECT_EQ(ExIsResourceAcquiredExclusiveLite(&fcb->Resource) != 0, row.MainExclusive);
            EXPECT_EQ(ExIsResourceAcquiredSharedLite(&fcb->Resource) != 0, row.MainShared || row.MainExclusive);
            EXPECT_EQ(ExIsResourceAcquiredSharedLite(&paging) != 0, row.PagingShared);
            return STATUS_SUCCESS;
        };
        EXPECT_EQ(nthost::StepModifiedPageWriter(file.Object()), STATUS_SUCCESS);
        EXPECT_EQ(asked, 1);
    }
    EXPECT_EQ(Poke(view.At(), 'y'), STATUS_SUCCESS);
    Fs().Before = [&](const Seen&) {
        EXPECT_TRUE(ExIsResourceAcquiredSharedLite(&fcb->Resource));
        EXPECT_TRUE(ExIsResourceAcquiredSharedLite(&paging));
        return STATUS_SUCCESS;
    };
    EXPECT_EQ(FlushFile(file.Object()).Information, Page);
    view.Unmap();
    EXPECT_TRUE(PurgeFile(file.Object()));
    fcb->Header.PagingIoResource = nullptr;
    ExDeleteResourceLite(&paging);
}

} // namespace
