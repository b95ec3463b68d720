// Opening: what is refused and with which status, what the plugin is asked, what a failure leaves behind.

#include "open_volume.h"

#include "frame/records.h"
#include "support/handmade.h"

namespace opening {
namespace {

class OpenRules : public VolumeTest {};

struct RefusalRow {
    const char* Name;
    OpenRequest Request;
    NTSTATUS Expected;
};

// From the parameters alone: neither the volume is pinned nor the plugin asked.
TEST_F(OpenRules, ScreensBeforeAnythingElse)
{
    const RefusalRow rows[] = {
        {"supersede", {.Disposition = FILE_SUPERSEDE}, STATUS_NOT_SUPPORTED},
        {"supersede comes before access",
         {.Access = MAXIMUM_ALLOWED | SYNCHRONIZE, .Disposition = FILE_SUPERSEDE},
         STATUS_NOT_SUPPORTED},
        {"by file id", {.Options = kSynchronous | FILE_OPEN_BY_FILE_ID}, STATUS_NOT_SUPPORTED},
        {"opportunistic filter", {.Options = kSynchronous | FILE_RESERVE_OPFILTER}, STATUS_NOT_SUPPORTED},
        {"maximum allowed", {.Access = MAXIMUM_ALLOWED | SYNCHRONIZE}, STATUS_ACCESS_DENIED},
        {"owner", {.Access = WRITE_OWNER | SYNCHRONIZE}, STATUS_ACCESS_DENIED},
        {"delete child", {.Access = FILE_DELETE_CHILD | SYNCHRONIZE}, STATUS_ACCESS_DENIED},
    };
    for (const RefusalRow& row : rows) {
        SCOPED_TRACE(row.Name);
        Plugin().Clear();
        EXPECT_STATUS(row.Expected, Open("\\file", row.Request).Status);
        EXPECT_TRUE(Plugin().Calls().empty());
    }
}

struct PathRow {
    const char* Path;
    NTSTATUS Expected;
};

TEST_F(OpenRules, JudgesNames)
{
    const PathRow rows[] = {
        {"\\file", STATUS_SUCCESS},
        {"\\FILE", STATUS_SUCCESS}, // the plugin folds case
        {"\\dir\\", STATUS_SUCCESS},
        {"\\dir\\\\", STATUS_SUCCESS},
        {"\\", STATUS_SUCCESS},
        {"", STATUS_SUCCESS}, // the volume
        {"\\file\\", STATUS_OBJECT_NAME_INVALID},
        {"\\fi?le", STATUS_OBJECT_NAME_INVALID},
        {"\\fi\"le", STATUS_OBJECT_NAME_INVALID},
        {"\\.", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {"\\dir\\..\\file", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {"\\dir\\..", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {"\\...", STATUS_OBJECT_NAME_NOT_FOUND}, // not a whole component of dots
        {"\\nothing", STATUS_OBJECT_NAME_NOT_FOUND},
        {"\\nothing\\below", STATUS_OBJECT_PATH_NOT_FOUND},
        {"\\file\\below", STATUS_OBJECT_PATH_SYNTAX_BAD}, // a file in the middle
        {"\\link", STATUS_SUCCESS},                       // followed
    };
    for (const PathRow& row : rows) {
        SCOPED_TRACE(row.Path);
        EXPECT_STATUS(row.Expected, Open(row.Path).Status);
        EXPECT_EQ(FcbCount(), 0u); // closed again, or nothing of it stayed
    }
}

// Where it comes from is judged before what it asks.
TEST_F(OpenRules, WantsTheCallersOwnThread)
{
    {
        const support::InsideOtherWork inside;
        EXPECT_STATUS(STATUS_INVALID_PARAMETER, Open("\\file", {.Disposition = FILE_SUPERSEDE}).Status);
    }
    const support::AtIrql irql(APC_LEVEL);
    EXPECT_STATUS(STATUS_UNSUCCESSFUL, Open("\\file", {.Disposition = FILE_SUPERSEDE}).Status);
}

TEST_F(OpenRules, AppliesDispositionsAndTypes)
{
    struct Row {
        const char* Path;
        ULONG Disposition;
        ULONG Options;
        NTSTATUS Expected;
    };
    const Row rows[] = {
        {"\\file", FILE_OPEN_IF, 0, STATUS_SUCCESS},
        {"\\file", FILE_CREATE, 0, STATUS_OBJECT_NAME_COLLISION},
        {"\\file", FILE_OPEN, FILE_DIRECTORY_FILE, STATUS_NOT_A_DIRECTORY},
        {"\\dir", FILE_OPEN, FILE_NON_DIRECTORY_FILE, STATUS_FILE_IS_A_DIRECTORY},
        {"\\dir", FILE_OVERWRITE, 0, STATUS_OBJECT_NAME_COLLISION},
        {"\\dir", FILE_OVERWRITE, FILE_NON_DIRECTORY_FILE, STATUS_FILE_IS_A_DIRECTORY}, // the type comes first
        {"\\nothing", FILE_OVERWRITE, 0, STATUS_OBJECT_NAME_NOT_FOUND},
        {"", FILE_OPEN, FILE_DIRECTORY_FILE, STATUS_NOT_A_DIRECTORY},
        {"", FILE_OVERWRITE, 0, STATUS_ACCESS_DENIED},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.Path) + " " + std::to_string(row.Disposition));
        const OpenResult result =
            Open(row.Path, {.Disposition = row.Disposition, .Options = kSynchronous | row.Options});
        EXPECT_STATUS(row.Expected, result.Status);
        if (NT_SUCCESS(row.Expected)) EXPECT_EQ(result.Information, ULONG_PTR(FILE_OPENED));
    }
    EXPECT_EQ(FcbCount(), 0u);
}

TEST_F(OpenRules, ResolvesRelativeNames)
{
    Handle directory = OpenOrFail("\\dir", {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE});
    Handle root = OpenOrFail("\\", {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE});
    Handle volume = OpenOrFail("");
    Handle file = OpenOrFail("\\file");
    struct Row {
        const char* What;
        HANDLE Root;
        const char* Name;
        NTSTATUS Expected;
    };
    const Row rows[] = {
        {"file in a directory", directory.Get(), "file", STATUS_SUCCESS},
        {"deep in a directory", directory.Get(), "sub\\deep", STATUS_SUCCESS},
        {"under the root", root.Get(), "dir\\file", STATUS_SUCCESS},
        {"the directory itself", directory.Get(), "", STATUS_SUCCESS},
        {"absolute under a directory", directory.Get(), "\\file", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {"the volume itself", volume.Get(), "", STATUS_SUCCESS},
        {"anything under the volume", volume.Get(), "file", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {"the file itself", file.Get(), "", STATUS_OBJECT_NAME_INVALID}, // the separator makes it a directory's name
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.What);
        EXPECT_STATUS(row.Expected, Open(row.Name, {.Root = row.Root}).Status);
    }
}

TEST_F(OpenRules, SharesAsTheHandlesAgree)
{
    struct Row {
        ACCESS_MASK FirstAccess;
        ULONG FirstShare;
        ACCESS_MASK SecondAccess;
        ULONG SecondShare;
        NTSTATUS Expected;
    };
    constexpr ULONG kRead = FILE_SHARE_READ, kWrite = FILE_SHARE_WRITE;
    const Row rows[] = {
        {FILE_READ_DATA, kRead, FILE_READ_DATA, kRead, STATUS_SUCCESS},
        {FILE_READ_DATA, kRead, FILE_WRITE_DATA, kRead | kWrite, STATUS_SHARING_VIOLATION},
        {FILE_READ_DATA, kRead | kWrite, FILE_WRITE_DATA, kRead, STATUS_SUCCESS},
        {FILE_WRITE_DATA, kRead | kWrite, FILE_READ_DATA, kRead, STATUS_SHARING_VIOLATION}, // who is there writes
        {FILE_READ_DATA, 0, FILE_READ_DATA, kRead, STATUS_SHARING_VIOLATION},
        {FILE_READ_ATTRIBUTES, 0, FILE_READ_DATA, kRead, STATUS_SUCCESS}, // attributes do not count
    };
    for (size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(i);
        const Row& row = rows[i];
        Handle first = OpenOrFail("\\file", {.Access = row.FirstAccess | SYNCHRONIZE, .Share = row.FirstShare});
        EXPECT_STATUS(row.Expected,
                      Open("\\file", {.Access = row.SecondAccess | SYNCHRONIZE, .Share = row.SecondShare}).Status);
        // The record holds nothing of an open that failed, nor of a handle that is gone.
        first.Close();
        OpenOrFail("\\file", {.Access = FILE_WRITE_DATA | SYNCHRONIZE, .Share = 0});
    }
}

TEST_F(OpenRules, UpgradesThePluginHandleOnce)
{
    Handle reader = OpenOrFail("\\file");
    TakeCalls();
    const OpenRequest write = {.Access = FILE_WRITE_DATA | SYNCHRONIZE};
    Handle writer = OpenOrFail("\\file", write);
    EXPECT_EQ(TakeCalls(), (Lines{"Lookup \\file", "Open \\file 15", "Close", "AccessCheck \\file 2 3"}));
    Handle second = OpenOrFail("\\file", write);
    EXPECT_EQ(TakeCalls(), (Lines{"AccessCheck \\file 2 3"}));
    // Read-only: the re-open is paid for, and then the plugin's limits refuse.
    EXPECT_STATUS(STATUS_ACCESS_DENIED, Open("\\readonly", write).Status);
    EXPECT_EQ(TakeCalls(), (Lines{"Lookup \\readonly", "Open \\readonly 9", "Lookup \\readonly", "Open \\readonly 13",
                                  "Close", "Close"}));
}

// Whatever step of a walk fails: its status comes back, nothing of the open stays, and a later open works.
TEST_F(OpenRules, LeavesNothingOfAFailedWalk)
{
    struct Row {
        const char* Operation;
        unsigned Calls; // that a cold open of the path makes
        unsigned Last;  // the call whose failure is judged by the disposition, not by the walk
    };
    for (const Row& row : {Row{"Lookup", 4, 4}, Row{"OpenDir", 3, 0}, Row{"Open", 1, 1}, Row{"AccessCheck", 1, 0}}) {
        for (unsigned n = 1; n <= row.Calls; ++n) {
            SCOPED_TRACE(std::string(row.Operation) + " " + std::to_string(n));
            Plugin().Fail(row.Operation, STATUS_IO_DEVICE_ERROR, n);
            EXPECT_STATUS(STATUS_IO_DEVICE_ERROR, Open("\\dir\\sub\\deep").Status);
            EXPECT_EQ(FcbCount(), 0u);
            OpenOrFail("\\dir\\sub\\deep");
        }
    }
}

} // namespace
} // namespace opening
