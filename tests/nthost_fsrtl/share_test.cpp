// Share-access records: which second open goes with a first, and that every count that goes in comes out again.
// The notification synchroniser, whose only visible effect is what it owns.
#include <cstring>

#include "support/host.h"
#include <ntifs.h>
#include <nthost/host.h>
#include <nthost/pool.h>

namespace {

constexpr ULONG R = FILE_SHARE_READ, W = FILE_SHARE_WRITE, D = FILE_SHARE_DELETE;

// Rows read: the first open's access and sharing, the second's, and whether the second is let in.
struct ShareRow {
    ACCESS_MASK FirstAccess;
    ULONG FirstShare;
    ACCESS_MASK SecondAccess;
    ULONG SecondShare;
    bool Allowed;
};

constexpr ShareRow ShareRows[] = {
    // The second asks for what the first does not share ...
    {FILE_READ_DATA, R, FILE_READ_DATA, R, true},
    {FILE_READ_DATA, W | D, FILE_READ_DATA, R, false},
    {FILE_READ_DATA, R | D, FILE_WRITE_DATA, R | W | D, false},
    {FILE_READ_DATA, R | W, FILE_WRITE_DATA, R, true},
    {FILE_READ_DATA, R | W, DELETE, R, false},
    // ... or does not share what the first does.
    {FILE_WRITE_DATA, R | W | D, FILE_READ_DATA, R | D, false},
    {FILE_WRITE_DATA, R | W | D, FILE_READ_DATA, W, true},
    {DELETE, R | W | D, FILE_READ_DATA, R | W, false},
    {FILE_READ_DATA | FILE_WRITE_DATA, R | W | D, DELETE, W, false},
    // Running a file is reading it, appending is writing.
    {FILE_EXECUTE, R, FILE_READ_DATA, 0, false},
    {FILE_READ_DATA, 0, FILE_EXECUTE, R, false},
    {FILE_APPEND_DATA, R | W, FILE_READ_DATA, R, false},
    {FILE_READ_DATA, R, FILE_APPEND_DATA, R | W, false},
    // Who wants none of the three neither counts nor is held back.
    {FILE_READ_ATTRIBUTES, 0, FILE_WRITE_DATA, 0, true},
    {FILE_WRITE_DATA, 0, SYNCHRONIZE, 0, true},
    {FILE_WRITE_ATTRIBUTES, 0, WRITE_DAC, 0, true},
};

TEST(ShareAccess, SecondOpenGoesWithTheFirstOrNot)
{
    for (const ShareRow& row : ShareRows) {
        SCOPED_TRACE(testing::Message() << "row " << &row - ShareRows);
        FILE_OBJECT first{}, second{};
        SHARE_ACCESS record;
        memset(&record, 0xcc, sizeof record); // a record is started, never trusted
        IoSetShareAccess(row.FirstAccess, row.FirstShare, &first, &record);
        const SHARE_ACCESS before = record;

        const NTSTATUS expected = row.Allowed ? STATUS_SUCCESS : STATUS_SHARING_VIOLATION;
        EXPECT_EQ(IoCheckShareAccess(row.SecondAccess, row.SecondShare, &second, &record, FALSE), expected);
        EXPECT_EQ(memcmp(&record, &before, sizeof record), 0);
        EXPECT_EQ(IoCheckShareAccess(row.SecondAccess, row.SecondShare, &second, &record, TRUE), expected);
        if (row.Allowed) IoRemoveShareAccess(&second, &record);
        EXPECT_EQ(memcmp(&record, &before, sizeof record), 0);

        IoRemoveShareAccess(&first, &record);
        const SHARE_ACCESS none{};
        EXPECT_EQ(memcmp(&record, &none, sizeof record), 0);
    }
}

TEST(ShareAccess, FileObjectNotesWhatIsCountedLater)
{
    FILE_OBJECT writer{}, reader{};
    SHARE_ACCESS record{};
    IoSetShareAccess(FILE_WRITE_DATA, R | W, &writer, &record);
    EXPECT_EQ(IoCheckShareAccess(FILE_READ_DATA | DELETE, W | D, &reader, &record, FALSE), STATUS_SHARING_VIOLATION);
    // Even a refused open has its access noted: the caller may take it in all the same.
    EXPECT_TRUE(reader.ReadAccess && !reader.WriteAccess && reader.DeleteAccess);
    EXPECT_TRUE(!reader.SharedRead && reader.SharedWrite && reader.SharedDelete);
    IoUpdateShareAccess(&reader, &record);
    const SHARE_ACCESS both = {2, 1, 1, 1, 1, 2, 1};
    EXPECT_EQ(memcmp(&record, &both, sizeof record), 0);
}

using NotifySync = support::BootedTest;

TEST_F(NotifySync, OwnsOneBlockUntilItGoes)
{
    const uint64_t before = nthost::PoolTotals().LiveBlocks;
    PNOTIFY_SYNC sync = nullptr;
    FsRtlNotifyInitializeSync(&sync);
    EXPECT_NE(sync, nullptr);
    EXPECT_EQ(nthost::PoolTotals().LiveBlocks, before + 1);
    FsRtlNotifyUninitializeSync(&sync);
    EXPECT_EQ(sync, nullptr);
    FsRtlNotifyUninitializeSync(&sync);
    EXPECT_EQ(nthost::PoolTotals().LiveBlocks, before);
}

} // namespace
