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

// Dispositions and types of files and directories are the model's; here, what they are for the volume.
TEST_F(OpenRules, OfTheVolumeKnowNoTypeAndNoOverwriting)
{
    EXPECT_STATUS(STATUS_NOT_A_DIRECTORY, Open("", {.Options = kSynchronous | FILE_DIRECTORY_FILE}).Status);
    EXPECT_STATUS(STATUS_ACCESS_DENIED, Open("", {.Disposition = FILE_OVERWRITE}).Status);
    EXPECT_EQ(Open("", {.Disposition = FILE_OPEN_IF}).Information, ULONG_PTR(FILE_OPENED));
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
