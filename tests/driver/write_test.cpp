// Writing: chunks and short counts, what moves and what does not, bad buffers, paging writes.

#include "open_volume.h"

#include <cstring>

#include <nthost/user_memory.h>

#include "support/file.h"
#include "support/handmade.h"

namespace opening {
namespace {

using support::Outcome;
using support::Write;

constexpr OpenRequest kReadWrite = {.Access = FILE_GENERIC_READ | FILE_GENERIC_WRITE};

class Writes : public VolumeTest {
protected:
    static LONGLONG Position(HANDLE file)
    {
        NTSTATUS status;
        return support::QueryAs<FILE_POSITION_INFORMATION>(file, FilePositionInformation, &status)
            .CurrentByteOffset.QuadPart;
    }
    LONGLONG Size() const { return Find("\\file")->Header.FileSize.QuadPart; }

    // As the memory manager would send it.
    Outcome WritePages(PFILE_OBJECT file, void* pages, ULONG length, LONGLONG offset)
    {
        support::HandMade request(Device(), file, IRP_MJ_WRITE);
        request.Irp()->Flags |= IRP_PAGING_IO | IRP_NOCACHE;
        request.Irp()->UserBuffer = pages;
        request.Stack()->Parameters.Write.Length = length;
        request.Stack()->Parameters.Write.ByteOffset.QuadPart = offset;
        const NTSTATUS status = request.Send();
        return {status, request.Information()};
    }
};

TEST_F(Writes, GoInChunks)
{
    Handle file = OpenOrFail("\\file", kReadWrite);
    struct Row {
        ULONG Length;
        Lines Calls;
    };
    const Row rows[] = {
        {0, {}},
        {1, {"Write 5 1"}},
        {65536, {"Write 5 65536"}},
        {65537, {"Write 5 65536", "Write 65541 1"}},
        {200000, {"Write 5 65536", "Write 65541 65536", "Write 131077 65536", "Write 196613 3392"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.Length);
        std::string data(row.Length, 'w');
        if (!data.empty()) data.back() = 'e';
        TakeCalls();
        const Outcome outcome = Write(file.Get(), data, 5);
        EXPECT_EQ(TakeCalls(), row.Calls);
        EXPECT_STATUS(STATUS_SUCCESS, outcome.Status);
        EXPECT_EQ(outcome.Information, row.Length);
        EXPECT_EQ(Position(file.Get()), 5 + row.Length);
        EXPECT_EQ(Size(), std::max<LONGLONG>(10, 5 + row.Length));
        EXPECT_TRUE(support::ReadText(file.Get(), row.Length, 5) == data);
    }
}

// For the reports at the cleanup. Positions and data are the model's.
TEST_F(Writes, NoteWhatTheyChange)
{
    Handle file = OpenOrFail("\\file", kReadWrite);
    EXPECT_STATUS(STATUS_SUCCESS, Write(file.Get(), "END", support::kAtEnd).Status);
    const Ccb* const ccb = GvCcbOf(FileReference(file.Get()).Get());
    EXPECT_EQ(ccb->SizeChanged, 1);

    Handle inside = OpenOrFail("\\file", kReadWrite);
    EXPECT_STATUS(STATUS_SUCCESS, Write(inside.Get(), "x", 1).Status);
    const Ccb* const insideCcb = GvCcbOf(FileReference(inside.Get()).Get());
    EXPECT_EQ(insideCcb->SizeChanged, 0);
    EXPECT_EQ(insideCcb->LastWriteChanged, 1);

    // Beyond the end, of no length: the size follows the offset.
    EXPECT_STATUS(STATUS_SUCCESS, Write(inside.Get(), "", 500).Status);
    EXPECT_EQ(Size(), 500);
}

struct Short {
    static inline ULONG Taken;
    static inline PluginWriteFn Inner;
    static inline void* InnerContext;
    static NTSTATUS NTAPI Write(void*, PKEVENT cancel, PluginFd fd, LONGLONG offset, ULONG* length, const void* buffer)
    {
        if (Taken < *length) *length = Taken;
        return Inner(InnerContext, cancel, fd, offset, length, buffer);
    }
};

TEST_F(Writes, EndWhereThePluginTakesLess)
{
    Short::Inner = std::exchange(Plugin().Table()->Write, Short::Write);
    Short::InnerContext = &Plugin();
    Short::Taken = 1000;
    Handle file = OpenOrFail("\\file", kReadWrite);
    Plugin().Clear();
    const Outcome outcome = Write(file.Get(), std::string(100000, 's'), 0);
    EXPECT_STATUS(STATUS_SUCCESS, outcome.Status);
    EXPECT_EQ(outcome.Information, 1000u);
    EXPECT_EQ(Plugin().Count("Write"), 1u);
    EXPECT_EQ(Size(), 1000);
    EXPECT_EQ(Position(file.Get()), 1000);
}

// Whatever ends it at the third chunk: two are written, and nobody is told.
TEST_F(Writes, ReportNothingWhenAChunkFails)
{
    Handle file = OpenOrFail("\\file", kReadWrite);
    FileReference object(file.Get());
    nthost::UserMemory memory(0x40000);
    std::memset(memory.Address(), 'u', memory.Size());
    const auto write = [&] {
        LARGE_INTEGER zero = {};
        IO_STATUS_BLOCK block = {};
        const NTSTATUS status =
            NtWriteFile(file.Get(), nullptr, nullptr, nullptr, &block, memory.Address(), 0x40000, &zero, nullptr);
        return status;
    };
    struct Row {
        const char* Name;
        std::function<void()> Arrange;
        NTSTATUS Expected;
        unsigned Calls;
    };
    const Row rows[] = {
        {"failure", [&] { Plugin().Fail("Write", STATUS_DISK_FULL, 3); }, STATUS_DISK_FULL, 3},
        {"warning", [&] { Plugin().Fail("Write", STATUS_BUFFER_OVERFLOW, 3); }, STATUS_BUFFER_OVERFLOW, 3},
        {"exception", [&] { Plugin().Raise("Write", STATUS_DATA_ERROR, 3); }, STATUS_ACCESS_VIOLATION, 3},
        {"buffer gone",
         [&] {
             Plugin().Before(
                 "Write", [&](PKEVENT) { memory.Unmap(); }, 2);
         },
         STATUS_ACCESS_VIOLATION, 2},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.Name);
        Plugin().Clear();
        row.Arrange();
        EXPECT_STATUS(row.Expected, write());
        EXPECT_EQ(Plugin().Count("Write"), row.Calls);
        EXPECT_EQ(Size(), 10);
        EXPECT_EQ(object->CurrentByteOffset.QuadPart, 0);
        EXPECT_EQ(GvCcbOf(object.Get())->LastWriteChanged, 0);
    }
    EXPECT_STATUS(STATUS_ACCESS_VIOLATION, write()); // by the probe, with the buffer gone from the start
    memory.Map();
    EXPECT_STATUS(STATUS_SUCCESS, write()); // no lock and no count was left
}

TEST_F(Writes, HeedByteRangeLocks)
{
    Handle owner = OpenOrFail("\\file", kReadWrite);
    Handle other = OpenOrFail("\\file", kReadWrite);
    support::Request lock;
    EXPECT_STATUS(STATUS_SUCCESS, lock.StartLock(owner.Get(), 4, 4, support::Request::Lock::Shared));
    EXPECT_STATUS(STATUS_FILE_LOCK_CONFLICT, Write(other.Get(), "xx", 3).Status);
    EXPECT_STATUS(STATUS_FILE_LOCK_CONFLICT, Write(owner.Get(), "xx", 3).Status); // shared: nobody writes
    EXPECT_STATUS(STATUS_SUCCESS, Write(other.Get(), "xx", 2).Status);
    FileReference object(other.Get());
    char page[4] = {'P', 'P', 'P', 'P'};
    EXPECT_STATUS(STATUS_SUCCESS, WritePages(object.Get(), page, 4, 4).Status);
    EXPECT_EQ(support::ReadText(owner.Get(), 10), "01xxPPPP89");
}

TEST_F(Writes, OfPagesAreOneCallAndMoveNothing)
{
    Handle file = OpenOrFail("\\file", kReadWrite);
    FileReference object(file.Get());
    std::vector<char> pages(0x30000, 'p');
    TakeCalls();
    const Outcome outcome = WritePages(object.Get(), pages.data(), 0x30000, 4096);
    EXPECT_STATUS(STATUS_SUCCESS, outcome.Status);
    EXPECT_EQ(outcome.Information, 0x30000u);
    EXPECT_EQ(TakeCalls(), Lines{"Write 4096 196608"});
    EXPECT_EQ(Size(), 10);
    EXPECT_EQ(object->CurrentByteOffset.QuadPart, 0);
    EXPECT_EQ(GvCcbOf(object.Get())->LastWriteChanged, 0);
    Plugin().Fail("Write", STATUS_INVALID_PARAMETER);
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, WritePages(object.Get(), pages.data(), 1, -1).Status); // no marker
    EXPECT_EQ(TakeCalls(), Lines{"Write -1 1"});
}

TEST_F(Writes, ToAFileThatIsGoneSucceedWithNothing)
{
    Handle file = OpenOrFail("\\file", {.Access = FILE_GENERIC_READ | FILE_GENERIC_WRITE | DELETE});
    FileReference object(file.Get()); // keeps the object beyond the handle
    EXPECT_STATUS(STATUS_SUCCESS, support::SetDelete(file.Get(), true));
    file.Close();
    TakeCalls();
    char data[4] = {};
    const Outcome outcome = WritePages(object.Get(), data, 4, 0);
    EXPECT_STATUS(STATUS_SUCCESS, outcome.Status);
    EXPECT_EQ(outcome.Information, 0u);
    EXPECT_TRUE(TakeCalls().empty());
}

TEST_F(Writes, AreForFilesOnly)
{
    Handle directory = OpenOrFail("\\dir", {.Access = FILE_ADD_FILE | SYNCHRONIZE});
    EXPECT_STATUS(STATUS_OBJECT_TYPE_MISMATCH, Write(directory.Get(), "x", 0).Status);
    Handle file = OpenOrFail("\\file", kReadWrite);
    FileReference object(file.Get());
    char data = 'x';
    support::HandMade mdl(Device(), object.Get(), IRP_MJ_WRITE, IRP_MN_MDL);
    mdl.Irp()->UserBuffer = &data;
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, mdl.Send());
    support::HandMade bare(Device(), object.Get(), IRP_MJ_WRITE);
    bare.Stack()->Parameters.Write.Length = 1;
    EXPECT_STATUS(STATUS_UNSUCCESSFUL, bare.Send()); // no buffer of any kind
    Plugin().Table()->Write = nullptr;
    EXPECT_STATUS(STATUS_NOT_SUPPORTED, Write(file.Get(), "x", 0).Status);
}

TEST_F(Writes, OnAnAsynchronousHandleTakeAWorker)
{
    Handle file = OpenOrFail("\\file", {.Access = FILE_GENERIC_READ | FILE_GENERIC_WRITE, .Options = 0});
    FileReference object(file.Get());
    std::string data(70000, 'a');
    support::Event done;
    IO_STATUS_BLOCK block = {};
    LARGE_INTEGER offset = {};
    EXPECT_STATUS(STATUS_PENDING, NtWriteFile(file.Get(), done.Get(), nullptr, nullptr, &block, data.data(),
                                              static_cast<ULONG>(data.size()), &offset, nullptr));
    done.Wait();
    EXPECT_STATUS(STATUS_SUCCESS, block.Status);
    EXPECT_EQ(block.Information, data.size());
    EXPECT_EQ(object->CurrentByteOffset.QuadPart, 0);
    EXPECT_EQ(Size(), 70000);
}

} // namespace
} // namespace opening
