// Extended attributes: the list format and its overflows, the three forms of a query, sets that stop at a bad record.

#include "open_volume.h"

#include <nthost/user_memory.h>

#include "ea/ea.h"
#include "ea/record.h"
#include "support/file.h"
#include "support/handmade.h"

namespace opening {
namespace {

using support::EaAnswer;
using support::EaList;
using support::EaQuery;
using support::QueryEas;
using support::SetEas;

class EaRecords : public support::HostFixture {};

TEST_F(EaRecords, EndTheListWhenNothingIsLeftBehindTheirAlignment)
{
    struct Row {
        ULONG NameLength, ValueLength, Room;
        NTSTATUS Expected;
        ULONG Left; // after the record
    };
    const Row rows[] = {
        {1, 2, 11, STATUS_BUFFER_OVERFLOW, 11}, // not written
        {1, 2, 12, STATUS_BUFFER_OVERFLOW, 0},  // written, and yet an overflow
        {1, 2, 13, STATUS_SUCCESS, 1},
        {2, 0, 12, STATUS_BUFFER_OVERFLOW, 1}, // the byte left is alignment
        {2, 0, 13, STATUS_SUCCESS, 1},
        {255, 65535, 65799, STATUS_BUFFER_OVERFLOW, 0},
        {256, 0, 70000, STATUS_INVALID_PARAMETER, 70000},
        {1, 65536, 70000, STATUS_INVALID_PARAMETER, 70000},
    };
    const std::string name(256, 'n');
    const std::string value(65536, 'v');
    for (const Row& row : rows) {
        SCOPED_TRACE(std::to_string(row.NameLength) + "/" + std::to_string(row.ValueLength) + " in " +
                     std::to_string(row.Room));
        std::vector<UCHAR> buffer(row.Room + 1, 0xcc); // odd: a caller's buffer need not be aligned
        GvEaList list = {.Cursor = buffer.data() + 1, .Previous = nullptr, .Remaining = row.Room};
        EXPECT_STATUS(row.Expected, GvAppendEaNameValueToFullEaInfo(name.c_str(), row.NameLength, value.data(),
                                                                    row.ValueLength, &list));
        EXPECT_EQ(list.Remaining, row.Left);
        EXPECT_EQ(list.Previous != nullptr, row.Left != row.Room);
        if (list.Previous) EXPECT_EQ(list.Previous[FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName) + row.NameLength], 0);
    }
}

class Eas : public VolumeTest {
protected:
    static constexpr OpenRequest kEaAccess = {.Access = FILE_READ_EA | FILE_WRITE_EA | SYNCHRONIZE};

    Handle OpenWithThree()
    {
        Handle file = OpenOrFail("\\file", kEaAccess);
        EXPECT_STATUS(STATUS_SUCCESS,
                      SetEas(file.Get(), EaList().Add("ONE", "1").Add("TWO", "22").Add("THREE", "333").Bytes()).Status);
        Plugin().Clear();
        return file;
    }
};

const Lines kAll = {"ONE=1", "TWO=22", "THREE=333"};

TEST_F(Eas, AreScannedByPosition)
{
    Handle file = OpenWithThree();
    EXPECT_EQ(QueryEas(file.Get()).Records, kAll);
    EXPECT_STATUS(STATUS_NO_MORE_EAS, QueryEas(file.Get()).Status);
    EXPECT_STATUS(STATUS_NO_MORE_EAS, QueryEas(file.Get()).Status);
    EXPECT_EQ(QueryEas(file.Get(), {.Restart = true}).Records, kAll);

    EXPECT_EQ(QueryEas(file.Get(), {.Single = true, .Restart = true}).Records, Lines{"ONE=1"});
    EXPECT_EQ(QueryEas(file.Get(), {.Single = true}).Records, Lines{"TWO=22"});
    EXPECT_EQ(QueryEas(file.Get()).Records, Lines{"THREE=333"});

    EXPECT_EQ(QueryEas(file.Get(), {.Index = 2}).Records, (Lines{"TWO=22", "THREE=333"}));
    EXPECT_STATUS(STATUS_NO_MORE_EAS, QueryEas(file.Get()).Status); // an index moves the position too
    EXPECT_STATUS(STATUS_NO_MORE_EAS, QueryEas(file.Get(), {.Index = 4}).Status);
    EXPECT_STATUS(STATUS_NONEXISTENT_EA_ENTRY, QueryEas(file.Get(), {.Index = 5}).Status);

    Handle empty = OpenOrFail("\\dir\\file", kEaAccess);
    EXPECT_STATUS(STATUS_NO_EAS_ON_FILE, QueryEas(empty.Get()).Status);
    EXPECT_STATUS(STATUS_NO_EAS_ON_FILE, QueryEas(empty.Get(), {.Index = 1}).Status);
}

TEST_F(Eas, StayAtTheRecordThatDidNotGetThrough)
{
    Handle file = OpenWithThree();
    EaAnswer answer = QueryEas(file.Get(), {.Length = 12});
    EXPECT_STATUS(STATUS_BUFFER_OVERFLOW, answer.Status); // 13 bytes are needed
    EXPECT_EQ(answer.Information, 0u);

    // The first record is 13 bytes and 3 of alignment: it goes out, and comes again.
    answer = QueryEas(file.Get(), {.Length = 16});
    EXPECT_STATUS(STATUS_BUFFER_OVERFLOW, answer.Status);
    EXPECT_EQ(answer.Records, Lines{"ONE=1"});
    EXPECT_EQ(answer.Information, 13u);
    EXPECT_EQ(QueryEas(file.Get(), {.Length = 17}).Records, Lines{"ONE=1"});

    answer = QueryEas(file.Get(), {.Length = 20}); // the second fits, the third does not
    EXPECT_STATUS(STATUS_BUFFER_OVERFLOW, answer.Status);
    EXPECT_EQ(answer.Records, Lines{"TWO=22"});
    EXPECT_EQ(QueryEas(file.Get()).Records, Lines{"THREE=333"});
}

TEST_F(Eas, AreQueriedByListAllOrNothing)
{
    Handle file = OpenWithThree();
    EXPECT_EQ(QueryEas(file.Get(), {.Names = {"THREE", "NONE", "ONE", "ONE"}}).Records,
              (Lines{"THREE=333", "NONE=", "ONE=1", "ONE=1"}));
    EXPECT_EQ(QueryEas(file.Get(), {.Single = true, .Names = {"TWO", "ONE"}}).Records, Lines{"TWO=22"});
    const EaAnswer answer = QueryEas(file.Get(), {.Length = 30, .Names = {"ONE", "THREE"}});
    EXPECT_STATUS(STATUS_BUFFER_OVERFLOW, answer.Status);
    EXPECT_EQ(answer.Information, 0u);
    EXPECT_EQ(QueryEas(file.Get()).Records, kAll); // the position played no part
}

// Lists that the service would refuse, sent to the driver as they are.
TEST_F(Eas, RefuseAMalformedListBeforeItsFirstRecordIsSet)
{
    Handle file = OpenWithThree();
    FileReference object(file.Get());
    EaList list;
    std::string bytes = list.Add("ONE", "new").Add("TWO", "new").Bytes();
    support::HandMade request(Device(), object.Get(), IRP_MJ_SET_EA);
    request.Irp()->UserBuffer = bytes.data();
    request.Stack()->Parameters.SetEa.Length = static_cast<ULONG>(bytes.size() - 1);
    EXPECT_STATUS(STATUS_EA_LIST_INCONSISTENT, request.Send());
    EXPECT_EQ(request.Information(), list.LastOffset());
    EXPECT_TRUE(TakeCalls().empty());
}

TEST_F(Eas, TellBadBuffersFromNone)
{
    Handle file = OpenWithThree();
    FileReference object(file.Get());
    nthost::UserMemory memory(PAGE_SIZE);
    memory.Unmap();
    for (const bool has : {true, false}) {
        support::HandMade query(Device(), object.Get(), IRP_MJ_QUERY_EA), set(Device(), object.Get(), IRP_MJ_SET_EA);
        for (support::HandMade* request : {&query, &set}) {
            request->Irp()->RequestorMode = UserMode;
            request->Irp()->UserBuffer = has ? memory.Address() : nullptr;
            request->Stack()->Parameters.QueryEa.Length = 64;
        }
        EXPECT_STATUS(has ? STATUS_UNSUCCESSFUL : STATUS_BUFFER_OVERFLOW, query.Send());
        EXPECT_STATUS(has ? STATUS_INVALID_PARAMETER : STATUS_UNSUCCESSFUL, set.Send());
    }
}

TEST_F(Eas, RefuseMalformedNameLists)
{
    Handle file = OpenWithThree();
    FileReference object(file.Get());
    const std::string two = support::EaNameList({"ONE", "TWO"});
    struct Row {
        const char* Name;
        std::string List;
        ULONG Length;
        NTSTATUS Expected;
    };
    const auto spoiled = [&two](size_t at, char value) {
        std::string list = two;
        list[at] = value;
        return list;
    };
    const auto all = static_cast<ULONG>(two.size());
    const Row rows[] = {
        {"whole", two, all, STATUS_SUCCESS},
        {"no bytes", two, 0, STATUS_INVALID_PARAMETER},
        {"less than an entry", two, 5, STATUS_INVALID_PARAMETER},
        {"a name without bytes", spoiled(4, 0), all, STATUS_INVALID_PARAMETER},
        {"a name beyond the end", spoiled(4, 100), all, STATUS_INVALID_PARAMETER},
        {"a successor beyond the end", spoiled(0, 100), all, STATUS_INVALID_PARAMETER},
        {"a successor at the end", spoiled(0, static_cast<char>(all - 3)), all, STATUS_INVALID_PARAMETER},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.Name);
        char buffer[256];
        support::HandMade request(Device(), object.Get(), IRP_MJ_QUERY_EA);
        request.Irp()->UserBuffer = buffer;
        std::string list = row.List;
        request.Stack()->Parameters.QueryEa.Length = sizeof buffer;
        request.Stack()->Parameters.QueryEa.EaList = list.data();
        request.Stack()->Parameters.QueryEa.EaListLength = row.Length;
        EXPECT_STATUS(row.Expected, request.Send());
        EXPECT_EQ(request.Information() != 0, NT_SUCCESS(row.Expected));
    }
}

TEST_F(Eas, LoseNothingOfAQueryWhoseBufferGoesAway)
{
    Handle file = OpenWithThree();
    nthost::UserMemory memory(PAGE_SIZE);
    Plugin().Before(
        "GetEa", [&memory](PKEVENT) { memory.Unmap(); }, 2); // behind the probe, before the second record
    IO_STATUS_BLOCK block = {};
    EXPECT_STATUS(STATUS_UNSUCCESSFUL,
                  NtQueryEaFile(file.Get(), &block, memory.Address(), PAGE_SIZE, FALSE, nullptr, 0, nullptr, TRUE));
    EXPECT_EQ(QueryEas(file.Get()).Records, (Lines{"TWO=22", "THREE=333"})); // the first had gone through
}

TEST_F(Eas, AreSetRecordByRecord)
{
    Handle file = OpenWithThree();
    EXPECT_STATUS(STATUS_SUCCESS,
                  SetEas(file.Get(), EaList().Add("TWO", "").Add("ONE", "new", FILE_NEED_EA).Bytes()).Status);
    EXPECT_EQ(TakeCalls(), (Lines{"DeleteEa TWO", "DeleteEa ONE", "SetEa ONE 3"}));
    EXPECT_EQ(QueryEas(file.Get(), {.Names = {"ONE", "TWO"}}).Records, (Lines{"ONE=new", "TWO="}));

    struct Row {
        std::string Name;
        UCHAR Flags;
        NTSTATUS Expected;
    };
    const Row rows[] = {
        {"BAD*", 0, STATUS_INVALID_EA_NAME},
        {"OK", 1, STATUS_INVALID_EA_FLAG},
        {"\x80high", 0, STATUS_SUCCESS}, // only the ASCII range has rules
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.Name);
        EaList list;
        list.Add("FIRST", row.Name).Add(row.Name, "x", row.Flags);
        const ULONG offset = list.LastOffset();
        list.Add("LAST", row.Name);
        const support::Outcome outcome = SetEas(file.Get(), list.Bytes());
        EXPECT_STATUS(row.Expected, outcome.Status);
        const bool refused = !NT_SUCCESS(row.Expected);
        EXPECT_EQ(outcome.Information, refused ? offset : 0u);
        // What came before the bad record is there, what came after it is not.
        EXPECT_EQ(QueryEas(file.Get(), {.Names = {"FIRST", "LAST"}}).Records,
                  (Lines{"FIRST=" + row.Name, refused ? "LAST=" : "LAST=" + row.Name}));
        SetEas(file.Get(), EaList().Add("FIRST", "").Add("LAST", "").Bytes());
    }
}

TEST_F(Eas, ForgiveAFailedDeleteAndReportAFailedSet)
{
    Handle file = OpenWithThree();
    Plugin().Fail("DeleteEa", STATUS_DISK_CORRUPT_ERROR);
    Plugin().Fail("SetEa", STATUS_DISK_FULL, 2);
    EXPECT_STATUS(STATUS_DISK_FULL,
                  SetEas(file.Get(), EaList().Add("ONE", "a").Add("TWO", "b").Add("THREE", "c").Bytes()).Status);
    EXPECT_EQ(QueryEas(file.Get(), {.Names = {"ONE", "TWO", "THREE"}}).Records,
              (Lines{"ONE=a", "TWO=", "THREE=333"})); // the old value of the second is gone already
}

TEST_F(Eas, BelongToFilesAndDirectoriesOnly)
{
    Handle volume = OpenOrFail("", kEaAccess);
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, QueryEas(volume.Get()).Status);
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, SetEas(volume.Get(), EaList().Add("A", "b").Bytes()).Status);
    Handle directory = OpenOrFail("\\dir", kEaAccess);
    EXPECT_STATUS(STATUS_SUCCESS, SetEas(directory.Get(), EaList().Add("A", "b").Bytes()).Status);
    EXPECT_EQ(QueryEas(directory.Get()).Records, Lines{"A=b"});

    const support::InsideOtherWork nested;
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, QueryEas(directory.Get(), {.Restart = true}).Status);
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, SetEas(directory.Get(), EaList().Add("A", "c").Bytes()).Status);
}

TEST_F(Eas, FollowAPluginThatHasNone)
{
    Handle file = OpenWithThree();
    Plugin().Table()->ListEa = nullptr;
    EXPECT_STATUS(STATUS_NOT_SUPPORTED, QueryEas(file.Get()).Status);
    Plugin().Table()->GetEa = nullptr;
    EXPECT_EQ(QueryEas(file.Get(), {.Names = {"ONE"}}).Records, Lines{"ONE="});
    Plugin().Table()->DeleteEa = nullptr; // ignored
    EXPECT_STATUS(STATUS_SUCCESS, SetEas(file.Get(), EaList().Add("ONE", "x").Bytes()).Status);
    Plugin().Table()->SetEa = nullptr;
    EXPECT_STATUS(STATUS_NOT_SUPPORTED, SetEas(file.Get(), EaList().Add("ONE", "x").Bytes()).Status);
}

} // namespace
} // namespace opening
