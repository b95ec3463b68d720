// What each request costs, exactly: plugin calls, pool allocations, copies. A change here is a change of the driver's
// price.

#include "open_volume.h"

#include <nthost/pool.h>

#include "frame/records.h"

namespace opening {
namespace {

class Counts : public VolumeTest {};

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

} // namespace
} // namespace opening
