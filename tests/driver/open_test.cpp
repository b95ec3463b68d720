// Opening: what is refused and with which status, what the plugin is asked, what a failure leaves behind.

#include "open_volume.h"

#include "frame/records.h"
#include "support/handmade.h"

namespace opening {
namespace {

class OpenRules : public VolumeTest {};

// From the parameters alone (util_test has them all): neither is the volume pinned nor the plugin asked.
TEST_F(OpenRules, ScreensBeforeAnythingElse)
{
    EXPECT_STATUS(STATUS_NOT_SUPPORTED, Open("\\file", {.Disposition = FILE_SUPERSEDE}).Status);
    EXPECT_STATUS(STATUS_ACCESS_DENIED, Open("\\file", {.Access = MAXIMUM_ALLOWED | SYNCHRONIZE}).Status);
    EXPECT_TRUE(Plugin().Calls().empty());
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

// What the names of handles make of a relative one is path_test's; here, that each object's own handle will do.
TEST_F(OpenRules, OpensTheRelatedObjectItself)
{
    for (const auto& [path, expected] : {PathRow{"\\dir", STATUS_SUCCESS}, PathRow{"", STATUS_SUCCESS},
                                         // The separator makes it a directory's name.
                                         PathRow{"\\file", STATUS_OBJECT_NAME_INVALID}}) {
        Handle related = OpenOrFail(path);
        EXPECT_STATUS(expected, Open("", {.Root = related.Get()}).Status) << path;
    }
    Handle directory = OpenOrFail("\\dir");
    OpenOrFail("sub\\deep", {.Root = directory.Get()});
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

} // namespace
} // namespace opening
