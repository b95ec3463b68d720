// Deletion at the last handle: who asks, who takes it back, what refuses, and what is left when the plugin fails.

#include "open_volume.h"

#include "support/file.h"

namespace opening {
namespace {

using support::Rename;
using support::SetDelete;

constexpr OpenRequest kDelete = {.Access = FILE_GENERIC_READ | DELETE};
constexpr OpenRequest kDeleteOnClose = {.Access = FILE_GENERIC_READ | DELETE,
                                        .Options = kSynchronous | FILE_DELETE_ON_CLOSE};

class Deletion : public VolumeTest {
protected:
    bool Exists(const std::string& path) { return Open(path).Status == STATUS_SUCCESS; }
};

TEST_F(Deletion, WaitsForTheLastHandle)
{
    Handle first = OpenOrFail("\\file", kDelete);
    Handle second = OpenOrFail("\\file");
    EXPECT_STATUS(STATUS_SUCCESS, SetDelete(first.Get(), true));
    EXPECT_STATUS(STATUS_DELETE_PENDING, Open("\\file").Status);
    TakeCalls();
    first.Close();
    EXPECT_TRUE(TakeCalls().empty());
    EXPECT_EQ(support::ReadText(second.Get(), 10), "0123456789");
    TakeCalls();
    second.Close();
    EXPECT_EQ(TakeCalls(), (Lines{"Close", "Delete \\file", "Close"})); // the file's handle, then the root's
    EXPECT_STATUS(STATUS_OBJECT_NAME_NOT_FOUND, Open("\\file").Status);
    EXPECT_EQ(FcbCount(), 0u);
}

// Read-only files and full directories are the model's.
TEST_F(Deletion, IsRefused)
{
    OpenRequest onClose = kDeleteOnClose;
    onClose.Options |= FILE_DIRECTORY_FILE;
    EXPECT_STATUS(STATUS_CANNOT_DELETE, Open("\\", onClose).Status);
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, Rename(OpenOrFail("\\", kDelete).Get(), "anything"));
    OpenRequest noDelete = kDeleteOnClose;
    noDelete.Access = FILE_GENERIC_READ;
    EXPECT_FALSE(NT_SUCCESS(Open("\\file", noDelete).Status));

    Handle directory = OpenOrFail("\\empty", kDelete);
    Handle child = OpenOrFail("\\empty\\child", {.Access = FILE_GENERIC_WRITE, .Disposition = FILE_CREATE});
    TakeCalls();
    EXPECT_STATUS(STATUS_UNSUCCESSFUL, SetDelete(directory.Get(), true)); // the child lives: the plugin is not asked
    EXPECT_EQ(TakeCalls(), Lines{"GetInfo"});
}

TEST_F(Deletion, TakesAReadOnlyAttributeOff)
{
    Handle file = OpenOrFail("\\file", {.Access = FILE_GENERIC_READ | FILE_WRITE_ATTRIBUTES | DELETE});
    EXPECT_STATUS(STATUS_SUCCESS, SetDelete(file.Get(), true));
    EXPECT_STATUS(STATUS_SUCCESS, support::SetBasic(file.Get(), FILE_ATTRIBUTE_READONLY)); // after the wish
    TakeCalls();
    file.Close();
    EXPECT_EQ(TakeCalls(), (Lines{"GetInfo", "SetAttr 0", "Close", "Delete \\file", "Close"}));
    EXPECT_FALSE(Exists("\\file"));
}

TEST_F(Deletion, RestartsAListingOnlyWhenThePluginHasDeleted)
{
    for (const bool fails : {false, true}) {
        SCOPED_TRACE(fails);
        Handle directory = OpenOrFail("\\dir");
        MakeFile("\\dir\\victim");
        const LONG before = Find("\\dir")->ChildDeleteCount;
        if (fails) Plugin().Fail("Delete", STATUS_DISK_CORRUPT_ERROR);
        OpenOrFail("\\dir\\victim", kDeleteOnClose).Close();
        EXPECT_EQ(Find("\\dir")->ChildDeleteCount, before + !fails);
        EXPECT_EQ(Find("\\dir\\victim"), nullptr); // gone for NT either way
        EXPECT_EQ(Exists("\\dir\\victim"), fails);
        EXPECT_EQ(FcbCount(), 2u);
    }
}

TEST_F(Deletion, StopsAtAFailedClose)
{
    Handle file = OpenOrFail("\\file", kDelete);
    FileReference object(file.Get());
    EXPECT_STATUS(STATUS_SUCCESS, SetDelete(file.Get(), true));
    Plugin().Fail("Close", STATUS_DISK_CORRUPT_ERROR);
    file.Close();
    EXPECT_EQ(Plugin().Count("Delete"), 0u);
    const Fcb* const fcb = Find("\\file");
    ASSERT_NE(fcb, nullptr);
    EXPECT_TRUE(fcb->PluginFdClosed);
    EXPECT_FALSE(fcb->Deleted);
    EXPECT_STATUS(STATUS_DELETE_PENDING, Open("\\file").Status);
    object.Drop();
    EXPECT_TRUE(Exists("\\file")); // with the last file object the wish goes too
}

} // namespace
} // namespace opening
