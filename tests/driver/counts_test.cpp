// What each request costs, exactly: plugin calls, pool allocations, copies. A change here is a change of the driver's
// price.

#include <nthost/pool.h>

#include "open_requests.h"
#include "support/file.h"

namespace opening {
namespace {

class Counts : public VolumeTest {};

class OneWorker : public VolumeTest {
protected:
    void SetUp() override
    {
        SetWorkers(1);
        VolumeTest::SetUp();
    }
};

TEST_F(Counts, OpenOfAColdPathIsALookupAndAnOpenPerComponent)
{
    Handle file = OpenOrFail("\\dir\\sub\\deep");
    EXPECT_EQ(TakeCalls(), (Lines{"Lookup \\", "OpenDir \\ 1", "Lookup \\dir", "OpenDir \\dir 1", "Lookup \\dir\\sub",
                                  "OpenDir \\dir\\sub 1", "Lookup \\dir\\sub\\deep", "Open \\dir\\sub\\deep 9",
                                  "AccessCheck \\dir\\sub\\deep 2 1"}));
    Handle neighbour = OpenOrFail("\\dir\\file"); // its directories are live
    EXPECT_EQ(TakeCalls(), (Lines{"Lookup \\dir\\file", "Open \\dir\\file 9", "AccessCheck \\dir\\file 2 1"}));
    Handle again = OpenOrFail("\\dir\\sub\\deep");
    EXPECT_EQ(TakeCalls(), (Lines{"AccessCheck \\dir\\sub\\deep 2 1"}));
}

TEST_F(Counts, CloseOfAChainIsOneCloseEachLeafFirst)
{
    Handle file = OpenOrFail("\\dir\\sub\\deep");
    Lines expected;
    for (const char* path : {"\\dir\\sub\\deep", "\\dir\\sub", "\\dir", "\\"}) {
        char text[32];
        std::snprintf(text, sizeof text, "Close #%llx", Find(path)->PluginFd);
        expected.push_back(text);
    }
    Plugin().Clear();
    file.Close();
    EXPECT_EQ(Plugin().Texts(), expected);
    EXPECT_EQ(FcbCount(), 0u);
}

struct SeenRead {
    static inline PluginReadFn Inner;
    static inline void* InnerContext;
    static inline void* Buffer;
    static NTSTATUS NTAPI Read(void*, PKEVENT cancel, PluginFd fd, LONGLONG offset, ULONG* length, void* buffer)
    {
        Buffer = buffer;
        return Inner(InnerContext, cancel, fd, offset, length, buffer);
    }
};

// The context is the one allocation, and the plugin writes where the caller reads.
TEST_F(Counts, ReadIsOneCallOneAllocationAndNoCopy)
{
    Handle file = OpenOrFail("\\file");
    SeenRead::Inner = std::exchange(Plugin().Table()->Read, SeenRead::Read);
    SeenRead::InnerContext = &Plugin();
    Plugin().Clear();
    char buffer[10];
    LARGE_INTEGER offset = {};
    IO_STATUS_BLOCK statusBlock = {};
    const uint64_t before = nthost::PoolAllocations();
    EXPECT_STATUS(STATUS_SUCCESS, NtReadFile(file.Get(), nullptr, nullptr, nullptr, &statusBlock, buffer, sizeof buffer,
                                             &offset, nullptr));
    EXPECT_EQ(nthost::PoolAllocations() - before, 1u);
    EXPECT_EQ(SeenRead::Buffer, buffer);
    EXPECT_EQ(Plugin().Calls().size(), 1u);
    EXPECT_EQ(statusBlock.Information, 10u);
}

// While the only worker stands in the plugin, each request that waits has left its permit on the semaphore: as many as
// requests, and none of them for nothing.
TEST_F(OneWorker, PendedRequestIsOneWakeUp)
{
    constexpr int kWaiting = 20;
    const auto permits = [this] {
        return __atomic_load_n(&Volume()->WorkSemaphore[GvLaneOrdinary].Header.SignalState, __ATOMIC_ACQUIRE);
    };
    Handle file = OpenOrFail("\\file", {.Access = FILE_READ_DATA, .Options = 0});
    auto gate = Plugin().CloseGate("Read");
    std::vector<Request> reads(kWaiting + 1);
    char bytes[kWaiting + 1];
    ASSERT_STATUS(STATUS_PENDING, reads[0].StartRead(file.Get(), &bytes[0], 1, 0));
    gate->WaitForArrivals(1);
    EXPECT_EQ(permits(), 0);
    for (int i = 1; i <= kWaiting; ++i) {
        ASSERT_STATUS(STATUS_PENDING, reads[i].StartRead(file.Get(), &bytes[i], 1, 0));
        EXPECT_EQ(permits(), i);
    }
    gate->Open();
    for (Request& read : reads) EXPECT_STATUS(STATUS_SUCCESS, read.Wait());
    EXPECT_EQ(permits(), 0);
    EXPECT_FALSE(Trace().Contains("GvMovePendedIrpContextToWorkQueue(): 0x"));
    // A caller that waits costs no wake-up at all.
    Handle synchronous = OpenOrFail("\\file");
    EXPECT_EQ(ReadText(synchronous.Get(), 3), "012");
    EXPECT_EQ(permits(), 0);
}

// One call per entry and one that finds the end; a buffer that fills costs one entry read again.
TEST_F(Counts, ListingIsOneCallPerEntry)
{
    Handle directory = OpenOrFail("\\", {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE});
    alignas(8) char large[4096];
    IO_STATUS_BLOCK statusBlock = {};
    Plugin().Clear();
    EXPECT_STATUS(STATUS_SUCCESS, NtQueryDirectoryFile(directory.Get(), nullptr, nullptr, nullptr, &statusBlock, large,
                                                       sizeof large, FileNamesInformation, FALSE, nullptr, TRUE));
    const size_t entries = 5; // file, readonly, dir, empty, link
    EXPECT_EQ(Plugin().Count("ReadDirEntry"), entries + 1);

    Plugin().Clear();
    alignas(8) char small[64]; // room for two or three records
    unsigned queries = 0;
    for (bool restart = true;; restart = false) {
        const NTSTATUS status = NtQueryDirectoryFile(directory.Get(), nullptr, nullptr, nullptr, &statusBlock, small,
                                                     sizeof small, FileNamesInformation, FALSE, nullptr, restart);
        if (status == STATUS_NO_MORE_FILES) break;
        ASSERT_STATUS(STATUS_SUCCESS, status);
        ++queries;
    }
    ASSERT_GT(queries, 1u);
    // The last query that placed something met the end, and so did the one behind it.
    EXPECT_EQ(Plugin().Count("ReadDirEntry"), entries + (queries - 1) + 2);
}

struct SeenWrite {
    static inline PluginWriteFn Inner;
    static inline void* InnerContext;
    static inline std::vector<const void*> Buffers;
    static NTSTATUS NTAPI Write(void*, PKEVENT cancel, PluginFd fd, LONGLONG offset, ULONG* length, const void* buffer)
    {
        Buffers.push_back(buffer);
        return Inner(InnerContext, cancel, fd, offset, length, buffer);
    }
};

class WriteCounts : public VolumeTest {
protected:
    void SetUp() override
    {
        VolumeTest::SetUp();
        file_ = OpenOrFail("\\file", {.Access = FILE_GENERIC_READ | FILE_GENERIC_WRITE});
        // So that the plugin grows nothing while it is watched.
        EXPECT_STATUS(STATUS_SUCCESS, support::Write(file_.Get(), data_, 0).Status);
        SeenWrite::Inner = std::exchange(Plugin().Table()->Write, SeenWrite::Write);
        SeenWrite::InnerContext = &Plugin();
        SeenWrite::Buffers.clear();
    }
    void TearDown() override
    {
        file_.Close();
        VolumeTest::TearDown();
    }
    Handle file_;
    std::string data_ = std::string(3 * 65536 + 1, 'w');
};

// The context and one block that every piece goes through: each byte is copied once.
TEST_F(WriteCounts, OfACallerAreACallPerPieceThroughOneBlock)
{
    const uint64_t before = nthost::PoolAllocations();
    EXPECT_STATUS(STATUS_SUCCESS, support::Write(file_.Get(), data_, 0).Status);
    EXPECT_EQ(nthost::PoolAllocations() - before, 2u);
    ASSERT_EQ(SeenWrite::Buffers.size(), 4u);
    for (const void* buffer : SeenWrite::Buffers) {
        EXPECT_EQ(buffer, SeenWrite::Buffers.front());
        EXPECT_NE(buffer, data_.data());
    }
}

TEST_F(WriteCounts, OfPagesAreOneCallFromThePages)
{
    FileReference object(file_.Get());
    support::HandMade request(Device(), object.Get(), IRP_MJ_WRITE);
    request.Irp()->Flags |= IRP_PAGING_IO | IRP_NOCACHE;
    request.Irp()->UserBuffer = data_.data();
    request.Stack()->Parameters.Write.Length = static_cast<ULONG>(data_.size());
    const uint64_t before = nthost::PoolAllocations();
    EXPECT_STATUS(STATUS_SUCCESS, request.Send());
    EXPECT_EQ(nthost::PoolAllocations() - before, 1u); // the context
    ASSERT_EQ(SeenWrite::Buffers.size(), 1u);
    EXPECT_EQ(SeenWrite::Buffers.front(), data_.data());
}

// The plugin's record is its own.
TEST_F(Counts, QueryIsOneCallAndNoAllocationButTheContext)
{
    Handle file = OpenOrFail("\\file");
    FileReference object(file.Get());
    FILE_NETWORK_OPEN_INFORMATION info;
    support::HandMade request(Device(), object.Get(), IRP_MJ_QUERY_INFORMATION);
    request.Irp()->AssociatedIrp.SystemBuffer = &info;
    request.Stack()->Parameters.QueryFile.Length = sizeof info;
    request.Stack()->Parameters.QueryFile.FileInformationClass = FileNetworkOpenInformation;
    TakeCalls();
    const uint64_t before = nthost::PoolAllocations();
    EXPECT_STATUS(STATUS_SUCCESS, request.Send());
    EXPECT_EQ(nthost::PoolAllocations() - before, 1u + 1u);
    EXPECT_EQ(TakeCalls(), Lines{"GetInfo"});
}

TEST_F(Counts, SizeOfAllEasIsACallEach)
{
    Handle file = OpenOrFail("\\file", {.Access = FILE_READ_ATTRIBUTES | FILE_WRITE_EA | SYNCHRONIZE});
    support::SetEas(file.Get(), support::EaList().Add("A", "1").Add("B", "2").Add("C", "3").Bytes());
    TakeCalls();
    FILE_EA_INFORMATION info;
    EXPECT_STATUS(STATUS_SUCCESS, support::Query(file.Get(), FileEaInformation, &info, sizeof info).Status);
    EXPECT_EQ(TakeCalls(), (Lines{"GetInfo", "ListEa 0", "GetEa A 0", "GetEa B 0", "GetEa C 0"}));
}

TEST_F(Counts, LinkIsALookupAndAReadLink)
{
    Handle root = OpenOrFail("\\");
    Handle file = OpenOrFail("\\file");
    TakeCalls();
    Handle again = OpenOrFail("\\link");
    EXPECT_EQ(TakeCalls(), (Lines{"Lookup \\link", "ReadLink \\link", "AccessCheck \\file 2 1"}));
}

} // namespace
} // namespace opening
