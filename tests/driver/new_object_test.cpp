// New objects and overwritten files: the rules before the plugin is asked, the order of its calls, and what stays when
// a step fails.

#include "open_volume.h"

#include "support/file.h"

namespace opening {
namespace {

using support::EaList;

constexpr OpenRequest kCreate = {.Access = FILE_GENERIC_READ | FILE_GENERIC_WRITE | DELETE, .Disposition = FILE_CREATE};

OpenRequest With(OpenRequest request, ULONG options, ULONG attributes = 0)
{
    request.Options |= options;
    request.Attributes = attributes;
    return request;
}

class NewObjects : public VolumeTest {};

TEST_F(NewObjects, AreRefusedWithoutAWordToThePlugin)
{
    OpenRequest noDelete = With(kCreate, FILE_DELETE_ON_CLOSE);
    noDelete.Access = FILE_GENERIC_READ | FILE_GENERIC_WRITE;
    struct Row {
        const char* Path;
        OpenRequest Request;
        NTSTATUS Expected;
    };
    const Row rows[] = {
        {"\\new\\", kCreate, STATUS_OBJECT_NAME_INVALID},
        {"\\new\\", With(kCreate, FILE_NON_DIRECTORY_FILE), STATUS_OBJECT_NAME_INVALID},
        {"\\new", With(kCreate, FILE_DELETE_ON_CLOSE, FILE_ATTRIBUTE_READONLY), STATUS_CANNOT_DELETE},
        {"\\new", With(kCreate, FILE_DELETE_ON_CLOSE | FILE_DIRECTORY_FILE, FILE_ATTRIBUTE_READONLY),
         STATUS_CANNOT_DELETE},
        {"\\new", noDelete, STATUS_INVALID_PARAMETER},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.Path);
        Plugin().Clear();
        EXPECT_STATUS(row.Expected, Open(row.Path, row.Request).Status);
        for (const layer::PluginCall& call : Plugin().Calls()) {
            EXPECT_TRUE(call.Operation == "Lookup" || call.Operation == "OpenDir" || call.Operation == "Close")
                << call.Text();
        }
        EXPECT_EQ(FcbCount(), 0u);
    }
}

TEST_F(NewObjects, AreBuiltInOrder)
{
    Handle root = OpenOrFail("\\");
    OpenRequest full = With(kCreate, 0, FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_DIRECTORY);
    full.AllocationSize = 100000;
    const std::string eas = EaList().Add("KEEP", "v").Add("DROP", "").Bytes();
    full.Eas = &eas;
    OpenRequest directory = With(kCreate, FILE_DIRECTORY_FILE, FILE_ATTRIBUTE_READONLY);
    directory.AllocationSize = 100000; // means nothing there

    struct Row {
        const char* Path;
        OpenRequest Request;
        Lines Calls;
        PluginAccessMask Access;
    };
    const Row rows[] = {
        {"\\plain", kCreate, {"Lookup \\plain", "AccessCheck \\plain 2 7", "Create \\plain"}, GVND_ACCESS_ALL},
        {"\\Full",
         full,
         {"Lookup \\Full", "AccessCheck \\Full 2 7", "Create \\Full", "SetFileSize 0 100000", "SetAttr 34",
          "DeleteEa KEEP", "SetEa KEEP 1", "DeleteEa DROP"},
         GVND_ACCESS_ALL},
        {"\\Folder\\",
         directory,
         {"Lookup \\Folder", "AccessCheck \\Folder 2 7", "CreateDir \\Folder", "SetAttr 17"},
         GVND_ACCESS_ALL & ~GVND_ACCESS_WRITE},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.Path);
        Plugin().Clear();
        const OpenResult created = Open(row.Path, row.Request);
        EXPECT_STATUS(STATUS_SUCCESS, created.Status);
        EXPECT_EQ(created.Information, ULONG_PTR(FILE_CREATED));
        EXPECT_EQ(TakeCalls(), row.Calls);
        std::string path = row.Path;
        if (path.back() == '\\') path.pop_back();
        const Fcb* const fcb = Find(path);
        ASSERT_NE(fcb, nullptr);
        EXPECT_EQ(fcb->MaxAllowedAccess, row.Access);
        EXPECT_EQ(fcb->PluginFdCurrentAccess, row.Access);
        EXPECT_EQ(fcb->Header.FileSize.QuadPart, 0);
    }
    EXPECT_EQ(FcbCount(), 1u); // the root that is still open
}

TEST_F(NewObjects, StayOnThePluginWhenALaterStepFails)
{
    OpenRequest full = With(kCreate, 0, FILE_ATTRIBUTE_HIDDEN);
    full.AllocationSize = 4096;
    const std::string eas = EaList().Add("NAME", "value").Bytes();
    full.Eas = &eas;
    struct Row {
        const char* Operation;
        bool Stays;
    };
    const Row rows[] = {
        {"AccessCheck", false}, {"Create", false}, {"SetFileSize", true}, {"SetAttr", true}, {"SetEa", true},
    };
    int number = 0;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.Operation);
        const std::string path = "\\new" + std::to_string(++number);
        Plugin().Fail(row.Operation, STATUS_DISK_FULL);
        EXPECT_STATUS(STATUS_DISK_FULL, Open(path, full).Status);
        EXPECT_EQ(Plugin().Count("Close"), row.Stays ? 2u : 1u); // the new handle, and the root's
        Plugin().Clear();
        EXPECT_EQ(FcbCount(), 0u);
        EXPECT_STATUS(row.Stays ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND, Open(path).Status);
        Plugin().Clear();
    }
}

// The service checks the list's structure; an illegal name is the driver's to find, behind the creation.
TEST_F(NewObjects, StayWhenTheirEasAreBad)
{
    OpenRequest request = kCreate;
    const std::string eas = EaList().Add("GOOD", "v").Add("BAD*", "v").Bytes();
    request.Eas = &eas;
    EXPECT_STATUS(STATUS_INVALID_EA_NAME, Open("\\new", request).Status);
    EXPECT_EQ(FcbCount(), 0u);
    Handle file = OpenOrFail("\\new", {.Access = FILE_READ_EA | SYNCHRONIZE});
    EXPECT_EQ(support::QueryEas(file.Get()).Records, Lines{"GOOD=v"});
}

TEST_F(NewObjects, LetTheirCreatorWriteWhatLaterOpensMayNot)
{
    Handle creator = OpenOrFail("\\new", With(kCreate, 0, FILE_ATTRIBUTE_READONLY));
    EXPECT_STATUS(STATUS_SUCCESS, support::Write(creator.Get(), "text").Status);
    TakeCalls();
    EXPECT_STATUS(STATUS_SUCCESS, support::Rename(creator.Get(), "moved"));
    const Lines calls = TakeCalls(); // the plugin's new handle is to serve the creator as the old one did
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "Open \\moved 15"), 1) << support::Join(calls);
    EXPECT_STATUS(STATUS_ACCESS_DENIED, Open("\\moved", {.Access = FILE_GENERIC_WRITE}).Status);
    EXPECT_STATUS(STATUS_SUCCESS, Open("\\moved").Status);
}

TEST_F(NewObjects, AreMadeOverANameThatWouldNotOpen)
{
    // Whatever stood in the way of the last component: the plugin's Create decides.
    Plugin().Fail("Open", STATUS_SHARING_VIOLATION);
    EXPECT_STATUS(STATUS_OBJECT_NAME_COLLISION,
                  Open("\\file", {.Access = FILE_GENERIC_READ, .Disposition = FILE_OPEN_IF}).Status);
    Plugin().Fail("Open", STATUS_SHARING_VIOLATION);
    EXPECT_STATUS(STATUS_SHARING_VIOLATION, Open("\\file").Status);
}

class Overwrites : public VolumeTest {
protected:
    static OpenRequest Overwrite(ULONG attributes = 0)
    {
        return {.Disposition = FILE_OVERWRITE_IF, .Attributes = attributes};
    }
};

TEST_F(Overwrites, CutTheFileAndAddAttributes)
{
    SetAttributes("\\file", FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE);
    Handle other = OpenOrFail("\\file");
    struct Row {
        ULONG Attributes;
        NTSTATUS Expected;
        ULONG After;
        bool Sets;
    };
    const Row rows[] = {
        {0, STATUS_ACCESS_DENIED, 0x24, false}, // a system file, by one who does not say so
        {FILE_ATTRIBUTE_HIDDEN, STATUS_ACCESS_DENIED, 0x24, false},
        {FILE_ATTRIBUTE_SYSTEM, STATUS_SUCCESS, 0x24, false}, // nothing to add
        {FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_HIDDEN, STATUS_SUCCESS, 0x26, true},
        {FILE_ATTRIBUTE_SYSTEM, STATUS_ACCESS_DENIED, 0x26, false}, // hidden by now
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.Attributes);
        Plugin().Clear();
        const OpenResult result = Open("\\file", Overwrite(row.Attributes));
        EXPECT_STATUS(row.Expected, result.Status);
        if (NT_SUCCESS(row.Expected)) EXPECT_EQ(result.Information, ULONG_PTR(FILE_OVERWRITTEN));
        EXPECT_EQ(Plugin().Count("SetAttr"), row.Sets ? 1u : 0u);
        EXPECT_EQ(Plugin().Count("SetFileSize"), NT_SUCCESS(row.Expected) ? 1u : 0u);
        NTSTATUS status;
        const auto basic = support::QueryAs<FILE_BASIC_INFORMATION>(other.Get(), FileBasicInformation, &status);
        EXPECT_EQ(basic.FileAttributes, row.After);
    }
    EXPECT_EQ(Find("\\file")->Header.FileSize.QuadPart, 0);
}

TEST_F(Overwrites, LeaveTheFileCutWhenALaterStepFails)
{
    struct Row {
        const char* Operation;
        LONGLONG Size;
    };
    for (const Row& row : {Row{"GetInfo", 10}, Row{"SetFileSize", 10}, Row{"SetAttr", 0}}) {
        SCOPED_TRACE(row.Operation);
        Plugin().Fail(row.Operation, STATUS_DISK_FULL);
        EXPECT_STATUS(STATUS_DISK_FULL, Open("\\file", Overwrite(FILE_ATTRIBUTE_HIDDEN)).Status);
        EXPECT_EQ(FcbCount(), 0u);
        Handle file = OpenOrFail("\\file");
        NTSTATUS status;
        EXPECT_EQ(support::QueryAs<FILE_STANDARD_INFORMATION>(file.Get(), FileStandardInformation, &status)
                      .EndOfFile.QuadPart,
                  row.Size);
    }
}

} // namespace
} // namespace opening
