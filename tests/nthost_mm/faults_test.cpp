// Page faults: who reads what, on which thread, and what a failing read becomes.
#include "minifs.h"

#include <atomic>
#include <cstring>
#include <semaphore>
#include <thread>

#include <nthost/faults.h>

using namespace minifs;

namespace {

using PageFaults = MmTest;

std::string Pattern(size_t length)
{
    std::string text(length, '\0');
    for (size_t i = 0; i < length; ++i) text[i] = static_cast<char>('a' + (i / Page + i) % 26);
    return text;
}

// Takes the findings: one cycle, whose report has all of the texts. Without checks there is none.
void ExpectCycle(const std::vector<std::string>& texts)
{
    const std::vector<nthost::Finding> findings = nthost::TakeFindings();
    if (!NTHOST_CHECKS) return;
    ASSERT_EQ(findings.size(), 1u);
    EXPECT_EQ(findings[0].Rule, "lock-order-cycle");
    for (const std::string& text : texts)
        EXPECT_NE(findings[0].Detail.find(text), std::string::npos) << text << "\n" << findings[0].Detail;
}

TEST_F(PageFaults, ReadOnePageEachOnTheTouchingThread)
{
    const std::string content = Pattern(3 * Page + 100);
    Fs().File("\\f")->Data = content;
    File file("f");
    Mapped view(file.Handle());
    Fs().Take();

    EXPECT_EQ(Bytes(view.At(Page + 5), 10), content.substr(Page + 5, 10));
    EXPECT_EQ(Bytes(view.At(Page + 700), 10), content.substr(Page + 700, 10));
    const std::vector<Seen> reads = Fs().Take();
    ASSERT_EQ(reads.size(), 1u);
    EXPECT_EQ(reads[0].Major, IRP_MJ_READ);
    EXPECT_EQ(reads[0].Flags & (IRP_PAGING_IO | IRP_NOCACHE | IRP_SYNCHRONOUS_PAGING_IO),
              IRP_PAGING_IO | IRP_NOCACHE | IRP_SYNCHRONOUS_PAGING_IO);
    EXPECT_EQ(reads[0].Offset, static_cast<LONGLONG>(Page));
    EXPECT_EQ(reads[0].Length, Page);
    EXPECT_EQ(reads[0].Thread, PsGetCurrentThreadId());
    EXPECT_TRUE(reads[0].TopLevel);
    EXPECT_FALSE(reads[0].HasSystemAddress);

    // The last page is asked for up to the end of its sector, and what the file does not fill is zero.
    EXPECT_EQ(Bytes(view.At(3 * Page), 104), content.substr(3 * Page, 100) + std::string(4, '\0'));
    EXPECT_EQ(Bytes(view.At(4 * Page - 8), 8), std::string(8, '\0'));
    EXPECT_EQ(Fs().TakePaging(IRP_MJ_READ).at(0).Length, 512u);
    EXPECT_EQ(nthost::DataSectionOf(file.Object()).PresentPages, 2u);
}

TEST_F(PageFaults, FirstWriteDirtiesExactlyItsPage)
{
    Fs().File("\\f")->Data = Pattern(4 * Page);
    File file("f");
    Mapped one(file.Handle()), other(file.Handle());
    Bytes(one.At(), 4 * Page);
    EXPECT_EQ(nthost::DataSectionOf(file.Object()).DirtyPages, 0u);
    EXPECT_EQ(Poke(one.At(2 * Page), '!'), STATUS_SUCCESS);
    EXPECT_EQ(Poke(one.At(2 * Page + 1), '?'), STATUS_SUCCESS);
    EXPECT_EQ(nthost::DataSectionOf(file.Object()).DirtyPages, 1u);
    EXPECT_EQ(nthost::DataSectionOf(file.Object()).Views, 2u);
    EXPECT_EQ(Bytes(other.At(2 * Page), 2), "!?"); // the same page, which nobody reads again
    EXPECT_EQ(Fs().TakePaging(IRP_MJ_READ).size(), 4u);
    EXPECT_EQ(Fs().File("\\f")->Data, Pattern(4 * Page)); // no one has written yet
}

TEST_F(PageFaults, ProtectionDecidesFirst)
{
    Fs().File("\\f")->Data = Pattern(Page);
    File file("f");
    Mapped readOnly(file.Handle(), {}, {.Protection = PAGE_READONLY});
    Mapped nothing(file.Handle(), {}, {.Protection = PAGE_NOACCESS});
    EXPECT_EQ(Poke(readOnly.At(), 'x'), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(Bytes(nothing.At(), 1), "STATUS_ACCESS_VIOLATION");
    EXPECT_EQ(Fs().TakePaging(IRP_MJ_READ).size(), 0u);
    EXPECT_EQ(Bytes(readOnly.At(), 1), "a");
    EXPECT_EQ(Poke(readOnly.At(), 'x'), STATUS_ACCESS_VIOLATION);

    // Another process's view is no view of this one's.
    const nthost::Process stranger("stranger");
    File again("f");
    Mapped fresh(again.Handle(), {}, {});
    const nthost::ActAs as(stranger.Object());
    EXPECT_EQ(Bytes(fresh.At(), 1), "STATUS_ACCESS_VIOLATION");
}

// Threads meet on a page that one of them is reading: the file system holds the first read until all have come.
TEST_F(PageFaults, OfManyThreadsOnOnePageCauseOneRead)
{
    constexpr int Threads = 6;
    Fs().File("\\f")->Data = Pattern(Page);
    File file("f");
    Mapped view(file.Handle());
    std::atomic<int> started{0};
    std::binary_semaphore go{0};
    Fs().Before = [&](const Seen& seen) {
        if (seen.Major == IRP_MJ_READ) go.acquire();
        return STATUS_SUCCESS;
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < Threads; ++i)
        threads.push_back(nthost::StartThread(nthost::HostProcess(), [&, i] {
            ++started;
            started.notify_all();
            if (i % 2) {
                EXPECT_EQ(Poke(view.At(100 + i), 'x'), STATUS_SUCCESS);
            } else {
                EXPECT_EQ(Bytes(view.At(0), 3), "abc");
            }
        }));
    for (int count = started; count < Threads; count = started) started.wait(count);
    go.release();
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(Fs().TakePaging(IRP_MJ_READ).size(), 1u);
    EXPECT_EQ(Bytes(view.At(101), 5), std::string("x") + Pattern(Page)[102] + "x" + Pattern(Page)[104] + "x");
}

TEST_F(PageFaults, FailedReadIsAnExceptionAndIsTriedAgain)
{
    Fs().File("\\f")->Data = Pattern(2 * Page);
    File file("f");
    Mapped view(file.Handle());
    NTSTATUS answer = STATUS_IO_DEVICE_ERROR;
    Fs().Before = [&](const Seen&) { return answer; };
    EXPECT_EQ(Bytes(view.At(), 1), "STATUS_IN_PAGE_ERROR");
    EXPECT_EQ(Poke(view.At(), 1), STATUS_IN_PAGE_ERROR);
    EXPECT_EQ(nthost::DataSectionOf(file.Object()).PresentPages, 0u);
    answer = STATUS_SUCCESS;
    EXPECT_EQ(Bytes(view.At(), 3), "abc");

    // A page behind the end of a file that has shrunk has nothing to show, and that is no error.
    Fs().File("\\f")->Data.resize(Page);
    answer = STATUS_END_OF_FILE;
    EXPECT_EQ(Bytes(view.At(Page), 3), std::string(3, '\0'));
    EXPECT_EQ(Poke(view.At(Page), 'x'), STATUS_SUCCESS);
}

TEST_F(PageFaults, MemoryThatRunsOutIsAnException)
{
    Fs().File("\\f")->Data = Pattern(Page);
    File file("f");
    Mapped view(file.Handle());
    const nthost::FaultPlan plan("MmMapLockedPagesSpecifyCache", 1);
    EXPECT_EQ(Bytes(view.At(), 1), "STATUS_IN_PAGE_ERROR"); // the file system cannot map what it is to fill
    EXPECT_EQ(plan.Injected(), 1u);
    EXPECT_EQ(Bytes(view.At(), 1), "a");
}

// A write from a buffer that is a view of the same file: the fault comes while the thread holds the file's lock, and
// its read is nested in the write.
TEST_F(PageFaults, InsideOfAWriteOfTheSameFileAreNested)
{
    Fs().File("\\f")->Data = Pattern(2 * Page);
    File file("f");
    Mapped view(file.Handle());
    Fs().Take();
    EXPECT_EQ(file.Write(10, view.At(Page), 20), STATUS_SUCCESS);
    const std::vector<Seen> seen = Fs().Take();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_TRUE(seen[0].TopLevel);
    EXPECT_EQ(seen[1].Major, IRP_MJ_READ);
    EXPECT_TRUE(seen[1].IsPaging());
    EXPECT_FALSE(seen[1].TopLevel);
    EXPECT_EQ(Fs().File("\\f")->Data.substr(10, 20), Pattern(2 * Page).substr(Page, 20));

    // Another thread's read of the page would have waited for the lock, and the write for that thread. What was
    // written is seen all the same.
    const nthost::QuietFindings quiet;
    EXPECT_EQ(Bytes(view.At(10), 20), Pattern(2 * Page).substr(Page, 20));
    ExpectCycle({"wait for pages of \\f by a thread that holds 0x", "by a thread that reads pages of \\f"});
}

// Two mapped files.
class PageOrder : public PageFaults {
protected:
    void SetUp() override
    {
        PageFaults::SetUp();
        for (const char* name : {"\\f", "\\g"}) Fs().File(name)->Data = Pattern(4 * Page);
    }
};

TEST_F(PageOrder, OfTwoFilesTakesEachFilesLockAndPages)
{
    const File f("f"), g("g");
    const Mapped viewOfF(f.Handle()), viewOfG(g.Handle());
    const nthost::QuietFindings quiet;
    EXPECT_EQ(f.Write(0, viewOfG.At(), 20), STATUS_SUCCESS); // the lock of f, pages of g
    Bytes(viewOfF.At(Page), 1);                              // pages of f, its lock
    Bytes(viewOfG.At(Page), 1);
    EXPECT_EQ(TakeRules(), std::vector<std::string>());
    EXPECT_EQ(g.Write(0, viewOfF.At(2 * Page), 20), STATUS_SUCCESS);
    ExpectCycle({"wait for pages of \\f by a thread that holds 0x", "by a thread that reads pages of \\f",
                 "wait for pages of \\g by a thread that holds 0x", "by a thread that reads pages of \\g"});
}

TEST_F(PageOrder, OfOneFileStandsForOthersIfTheirLocksAreOfOneClass)
{
    const File f("f"), g("g");
    for (const char* name : {"\\f", "\\g"}) nthost::NameLock(&Fs().File(name)->Resource, "File");
    const Mapped viewOfF(f.Handle()), viewOfG(g.Handle());
    const nthost::QuietFindings quiet;
    EXPECT_EQ(f.Write(0, viewOfG.At(), 20), STATUS_SUCCESS);
    Bytes(viewOfF.At(Page), 1);
    ExpectCycle({"class page being read", "class File"});
}

TEST_F(PageFaults, ReachServicesThatTakeTheCallersMemory)
{
    Fs().File("\\f")->Data = Pattern(2 * Page);
    File file("f");
    Mapped view(file.Handle());
    auto* const block = reinterpret_cast<PIO_STATUS_BLOCK>(view.At(Page));
    LARGE_INTEGER offset{};
    char buffer[8];
    EXPECT_EQ(NtReadFile(file.Handle(), nullptr, nullptr, nullptr, block, buffer, 8, &offset, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(block->Information, 8u);
    EXPECT_EQ(NtReadFile(file.Handle(), nullptr, nullptr, nullptr, block, view.At(), 8, &offset, nullptr),
              STATUS_SUCCESS); // a file read into itself
    EXPECT_EQ(nthost::DataSectionOf(file.Object()).DirtyPages, 2u);
}

TEST_F(PageFaults, AboveApcLevelAreFound)
{
    if (!NTHOST_CHECKS) GTEST_SKIP();
    Fs().File("\\f")->Data = Pattern(Page);
    File file("f");
    Mapped view(file.Handle());
    const nthost::QuietFindings quiet;
    KIRQL before;
    KeRaiseIrql(DISPATCH_LEVEL, &before);
    Bytes(view.At(), 1);
    KeLowerIrql(before);
    const std::vector<std::string> rules = TakeRules();
    ASSERT_FALSE(rules.empty());
    EXPECT_EQ(rules[0], "page-fault-above-apc-level");
}

} // namespace
