// Who keeps a mapped file open, until when, and where its close is sent; truncation, images, locked pages.
#include "minifs.h"

#include <cstring>

#include <nthost/user_memory.h>

using namespace minifs;

namespace {

using Lifetime = MmTest;

size_t Closes(const std::vector<Seen>& seen)
{
    size_t count = 0;
    for (const Seen& one : seen) count += one.Major == IRP_MJ_CLOSE;
    return count;
}

BOOLEAN Purge(Fcb* fcb) { return CcPurgeCacheSection(&fcb->Pointers, nullptr, 0, FALSE); }

TEST_F(Lifetime, SectionKeepsItsFileObjectUntilThePagesGo)
{
    Fcb* const fcb = Fs().File("\\f");
    fcb->Data = "content";
    {
        File file("f");
        Mapped view(file.Handle());
        EXPECT_EQ(Bytes(view.At(), 7), "content");
        EXPECT_TRUE(Purge(fcb)); // of a mapped file: the pages only
        EXPECT_NE(fcb->Pointers.DataSectionObject, nullptr);
        EXPECT_EQ(Bytes(view.At(), 7), "content");
    }
    EXPECT_EQ(Closes(Fs().Take()), 0u);
    EXPECT_NE(fcb->Pointers.DataSectionObject, nullptr);

    // The purge of an unused section sends the close at once, where it is called.
    IoSetTopLevelIrp(reinterpret_cast<PIRP>(FSRTL_FSP_TOP_LEVEL_IRP));
    EXPECT_TRUE(Purge(fcb));
    IoSetTopLevelIrp(nullptr);
    const std::vector<Seen> seen = Fs().Take();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].Major, IRP_MJ_CLOSE);
    EXPECT_FALSE(seen[0].TopLevel);
    EXPECT_EQ(seen[0].Thread, PsGetCurrentThreadId());
    EXPECT_EQ(fcb->Pointers.DataSectionObject, nullptr);
}

TEST_F(Lifetime, SectionThatWasNeverTouchedGoesWithItsLastUser)
{
    Fcb* const fcb = Fs().File("\\f");
    fcb->Data = "content";
    File file("f");
    Mapped view(file.Handle());
    file.Close();
    EXPECT_EQ(Closes(Fs().Take()), 0u);
    view.Unmap();
    EXPECT_EQ(Closes(Fs().Take()), 1u);
    EXPECT_EQ(fcb->Pointers.DataSectionObject, nullptr);
}

TEST_F(Lifetime, TrimmingWritesFirst)
{
    Fcb* const fcb = Fs().File("\\f");
    fcb->Data = "content";
    const auto dirty = [] {
        File file("f");
        Mapped view(file.Handle());
        EXPECT_EQ(Poke(view.At(), 'C'), STATUS_SUCCESS);
        EXPECT_EQ(nthost::TrimSections(), 0u); // not while it is used
    };
    dirty();
    Fs().Before = [](const Seen&) { return STATUS_DISK_FULL; };
    EXPECT_EQ(nthost::TrimSections(), 0u);
    EXPECT_NE(fcb->Pointers.DataSectionObject, nullptr);
    Fs().Before = nullptr;
    EXPECT_EQ(nthost::TrimSections(), 1u);
    EXPECT_EQ(fcb->Data, "Content");
    EXPECT_EQ(fcb->Pointers.DataSectionObject, nullptr);
    EXPECT_EQ(Closes(Fs().Take()), 1u);
}

TEST_F(Lifetime, ViewsGoWithTheirProcess)
{
    Fcb* const fcb = Fs().File("\\f");
    fcb->Data = "content";
    {
        const nthost::Process program("program");
        const nthost::ActAs as(program.Object());
        const File file("f");
        HANDLE section = nullptr;
        char* base = nullptr;
        EXPECT_EQ(MakeSection(file.Handle(), {}, &section), STATUS_SUCCESS);
        EXPECT_EQ(MakeView(section, {}, &base), STATUS_SUCCESS);
        EXPECT_EQ(Poke(base, 'C'), STATUS_SUCCESS);
    }
    EXPECT_EQ(fcb->Data, "Content");
    EXPECT_EQ(fcb->Pointers.DataSectionObject, nullptr);
}

TEST_F(Lifetime, LeaksAreReported)
{
    Fs().File("\\f")->Data = "content";
    File file("f");
    HANDLE section = nullptr;
    char* base = nullptr;
    EXPECT_EQ(MakeSection(file.Handle(), {}, &section), STATUS_SUCCESS);
    EXPECT_EQ(MakeView(section, {}, &base), STATUS_SUCCESS);
    EXPECT_EQ(Poke(base, 'C'), STATUS_SUCCESS);
    file.Close();
    Fs().Before = [](const Seen&) { return STATUS_DISK_FULL; };
    const std::vector<std::string> lines = ShutDownLeaking();
    const auto count = [&](const char* part) {
        size_t found = 0;
        for (const std::string& line : lines) found += line.find(part) != std::string::npos;
        return found;
    };
    EXPECT_EQ(count("Section"), 1u);
    EXPECT_EQ(count("view at"), 1u);
    EXPECT_EQ(count("could not be written: STATUS_DISK_FULL"), 1u);
}

// A second section of the same file, through another file object, has the same pages.
TEST_F(Lifetime, OneFileHasOneSetOfPages)
{
    Fcb* const fcb = Fs().File("\\f");
    fcb->Data = std::string(Page, '.');
    File first("f"), second("f");
    Mapped one(first.Handle());
    EXPECT_EQ(Poke(one.At(), 'x'), STATUS_SUCCESS);
    fcb->Data.resize(2 * Page, '2'); // the file has grown, which the first section does not show
    Mapped two(second.Handle());
    EXPECT_EQ(Bytes(two.At(), 2), "x.");
    EXPECT_EQ(Bytes(two.At(Page), 1), "2");
    EXPECT_EQ(Bytes(one.At(Page), 1), "STATUS_ACCESS_VIOLATION");
    const nthost::SectionUse use = nthost::DataSectionOf(second.Object());
    EXPECT_EQ(use.Size, static_cast<LONGLONG>(2 * Page));
    EXPECT_EQ(use.Views, 2u);
}

BOOLEAN CanBeCut(Fcb* fcb, LONGLONG size)
{
    LARGE_INTEGER value;
    value.QuadPart = size;
    return MmCanFileBeTruncated(&fcb->Pointers, &value);
}

TEST_F(Lifetime, AFileWithoutCacheMapIsAtItsEndAtOnce)
{
    const File file("f");
    CACHE_UNINITIALIZE_EVENT end{};
    KeInitializeEvent(&end.Event, NotificationEvent, FALSE);
    EXPECT_TRUE(CcUninitializeCacheMap(file.Object(), nullptr, &end));
    EXPECT_NE(KeReadStateEvent(&end.Event), 0);
}

TEST_F(Lifetime, FilesAreNotCutUnderTheirUsers)
{
    Fcb* const fcb = Fs().File("\\f");
    fcb->Data = std::string(2 * Page + 10, '.');
    EXPECT_TRUE(CanBeCut(fcb, 0));
    EXPECT_TRUE(MmCanFileBeTruncated(&fcb->Pointers, nullptr));
    File file("f");
    HANDLE section = nullptr;
    EXPECT_EQ(MakeSection(file.Handle(), {}, &section), STATUS_SUCCESS);
    EXPECT_FALSE(CanBeCut(fcb, 0)); // it could be mapped at any time
    char* base = nullptr;
    EXPECT_EQ(MakeView(section, {}, &base), STATUS_SUCCESS);
    EXPECT_EQ(NtClose(section), STATUS_SUCCESS);
    EXPECT_FALSE(MmCanFileBeTruncated(&fcb->Pointers, nullptr));
    EXPECT_FALSE(CanBeCut(fcb, 0));
    EXPECT_FALSE(CanBeCut(fcb, 2 * Page));
    EXPECT_TRUE(CanBeCut(fcb, 2 * Page + 1)); // within the last page
    EXPECT_TRUE(CanBeCut(fcb, 3 * Page));
    EXPECT_EQ(Bytes(base, 1), ".");
    EXPECT_EQ(NtUnmapViewOfSection(NtCurrentProcess(), base), STATUS_SUCCESS);
    EXPECT_NE(fcb->Pointers.DataSectionObject, nullptr);
    EXPECT_TRUE(CanBeCut(fcb, 0));

    // A section that is made after the cut is as long as the file is then, and old pages are not shown.
    fcb->Data = "short";
    Mapped view(file.Handle());
    EXPECT_EQ(nthost::DataSectionOf(file.Object()).Size, 5);
    EXPECT_EQ(nthost::DataSectionOf(file.Object()).PresentPages, 1u);
}

TEST_F(Lifetime, ImagesStandInTheWayOfWritersAndDeleters)
{
    Fcb* const fcb = Fs().File("\\f");
    fcb->Data = std::string(Page, 'M');
    constexpr SectionArguments Image = {.Protection = PAGE_EXECUTE_READ, .Kind = SEC_IMAGE};
    constexpr ViewArguments Code = {.Protection = PAGE_EXECUTE_READ};
    const auto flush = [fcb](MMFLUSH_TYPE type) { return MmFlushImageSection(&fcb->Pointers, type); };
    EXPECT_TRUE(flush(MmFlushForWrite));
    File file("f");
    {
        Mapped image(file.Handle(), Image, Code);
        EXPECT_EQ(Bytes(image.At(), 1), "M");
        EXPECT_EQ(nthost::ImageSectionOf(file.Object()).PresentPages, 1u);
        EXPECT_EQ(fcb->Pointers.DataSectionObject, nullptr);
        EXPECT_FALSE(flush(MmFlushForWrite));
        EXPECT_FALSE(flush(MmFlushForDelete));
        EXPECT_FALSE(CanBeCut(fcb, 3 * Page));
    }
    EXPECT_NE(fcb->Pointers.ImageSectionObject, nullptr);
    file.Close();
    Fs().Take();
    EXPECT_TRUE(flush(MmFlushForWrite)); // an idle one is let go, and with it the file object
    EXPECT_EQ(Closes(Fs().Take()), 1u);
    EXPECT_EQ(fcb->Pointers.ImageSectionObject, nullptr);

    // A data view does not hinder writers, only deletion.
    File again("f");
    Mapped data(again.Handle());
    EXPECT_TRUE(flush(MmFlushForWrite));
    EXPECT_FALSE(flush(MmFlushForDelete));
    data.Unmap();
    EXPECT_TRUE(flush(MmFlushForDelete));
}

// A description of a view's pages, as a request has it.
class Locked {
public:
    Locked(char* address, size_t length, LOCK_OPERATION operation)
        : mdl_(IoAllocateMdl(address, static_cast<ULONG>(length), FALSE, FALSE, nullptr)),
          status_(Lock(mdl_, operation))
    {}
    ~Locked()
    {
        if (NT_SUCCESS(status_)) MmUnlockPages(mdl_);
        IoFreeMdl(mdl_);
    }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;
    NTSTATUS Status() const { return status_; }
    char* Address() const
    {
        return static_cast<char*>(
            MmMapLockedPagesSpecifyCache(mdl_, KernelMode, MmCached, nullptr, FALSE, NormalPagePriority));
    }

private:
    [[gnu::noinline]] static NTSTATUS Lock(PMDL mdl, LOCK_OPERATION operation)
    {
        NT_GUARD guard;
        if (!NtGuardEnter(&guard)) return guard.Code;
        MmProbeAndLockPages(mdl, UserMode, operation);
        NtGuardLeave(&guard);
        return STATUS_SUCCESS;
    }

    PMDL mdl_;
    NTSTATUS status_;
};

TEST_F(Lifetime, LockedPagesStayUnderPurgeAndUnmapping)
{
    Fcb* const fcb = Fs().File("\\f");
    fcb->Data = std::string(3 * Page, '.');
    File file("f");
    Mapped view(file.Handle());
    {
        const Locked pages(view.At(Page - 2), 4, IoWriteAccess);
        ASSERT_EQ(pages.Status(), STATUS_SUCCESS);
        EXPECT_EQ(Bytes(view.At(2 * Page), 1), ".");
        EXPECT_EQ(nthost::DataSectionOf(file.Object()).DirtyPages, 2u);
        EXPECT_FALSE(Purge(fcb));
        EXPECT_EQ(nthost::DataSectionOf(file.Object()).PresentPages, 2u); // the third has gone
        char* const system = pages.Address();
        ASSERT_NE(system, nullptr);
        EXPECT_NE(system, view.At(Page - 2));
        memcpy(system, "abcd", 4);
        EXPECT_EQ(Bytes(view.At(Page - 3), 6), ".abcd.");

        // Changes that come after a flush, by the locked pages, are not lost.
        IO_STATUS_BLOCK flushed;
        CcFlushCache(&fcb->Pointers, nullptr, 0, &flushed);
        EXPECT_EQ(fcb->Data.substr(Page - 2, 4), "abcd");
        view.Unmap();
        file.Close();
        memcpy(system, "ABCD", 4);
        EXPECT_FALSE(Purge(fcb));
    }
    EXPECT_EQ(nthost::TrimSections(), 1u);
    EXPECT_EQ(fcb->Data.substr(Page - 3, 6), ".ABCD.");
}

TEST_F(Lifetime, LockingFaultsPagesInAndChecksThem)
{
    Fs().File("\\f")->Data = std::string(2 * Page, '.');
    File file("f");
    Mapped view(file.Handle()), readOnly(file.Handle(), {}, {.Protection = PAGE_READONLY});
    EXPECT_EQ(Locked(readOnly.At(), 1, IoWriteAccess).Status(), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(Locked(readOnly.At(), 2 * Page, IoReadAccess).Status(), STATUS_SUCCESS);
    EXPECT_EQ(nthost::DataSectionOf(file.Object()).PresentPages, 2u);
    EXPECT_EQ(nthost::DataSectionOf(file.Object()).DirtyPages, 0u);
    EXPECT_TRUE(CcPurgeCacheSection(file.Object()->SectionObjectPointer, nullptr, 0, FALSE));
    Fs().Before = [](const Seen& seen) { return seen.Offset ? STATUS_IO_DEVICE_ERROR : STATUS_SUCCESS; };
    EXPECT_EQ(Locked(view.At(), 2 * Page, IoReadAccess).Status(), STATUS_IN_PAGE_ERROR);
    EXPECT_TRUE(CcPurgeCacheSection(file.Object()->SectionObjectPointer, nullptr, 0, FALSE)); // nothing is left locked
}

} // namespace
