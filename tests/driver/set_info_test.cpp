// Setting information: times and attributes with their consequences for access, sizes, the position, the classes that
// are refused and when.

#include "open_volume.h"

#include "support/file.h"
#include "support/handmade.h"

namespace opening {
namespace {

using support::Outcome;
using support::QueryAs;

constexpr OpenRequest kAll = {.Access = FILE_GENERIC_READ | FILE_GENERIC_WRITE | DELETE};

class SetInfo : public VolumeTest {
protected:
    Outcome Send(PFILE_OBJECT file, FILE_INFORMATION_CLASS infoClass, void* buffer, ULONG length)
    {
        support::HandMade request(Device(), file, IRP_MJ_SET_INFORMATION);
        request.Irp()->AssociatedIrp.SystemBuffer = buffer;
        request.Stack()->Parameters.SetFile.Length = length;
        request.Stack()->Parameters.SetFile.FileInformationClass = infoClass;
        const NTSTATUS status = request.Send();
        return {status, request.Information()};
    }
    static FILE_STANDARD_INFORMATION Sizes(HANDLE file)
    {
        NTSTATUS status;
        return QueryAs<FILE_STANDARD_INFORMATION>(file, FileStandardInformation, &status);
    }
};

TEST_F(SetInfo, RefusesClassesBeforeOrBehindTheQueryOfThePlugin)
{
    Handle handle = OpenOrFail("\\file", kAll);
    Handle volume = OpenOrFail("");
    FileReference file(handle.Get());
    FileReference volumeFile(volume.Get());
    struct Row {
        FILE_INFORMATION_CLASS Class;
        NTSTATUS OnFile;
        bool AsksPlugin;
    };
    const Row rows[] = {
        {FileLinkInformation, STATUS_NOT_SUPPORTED, false},
        {FileValidDataLengthInformation, STATUS_NOT_SUPPORTED, false},
        {FileShortNameInformation, STATUS_INVALID_PARAMETER, true},
        {FilePositionInformation, STATUS_SUCCESS, true}, // though it needs nothing from there
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.Class);
        uint64_t buffer[8] = {};
        EXPECT_STATUS(STATUS_INVALID_PARAMETER, Send(volumeFile.Get(), row.Class, buffer, 64).Status);
        Plugin().Clear();
        EXPECT_STATUS(row.OnFile, Send(file.Get(), row.Class, buffer, 64).Status);
        EXPECT_EQ(Plugin().Count("GetInfo"), row.AsksPlugin ? 1u : 0u);
        EXPECT_EQ(Plugin().Calls().size(), row.AsksPlugin ? 1u : 0u);
        if (!row.AsksPlugin) continue;
        Plugin().Fail("GetInfo", STATUS_DATA_ERROR);
        EXPECT_STATUS(STATUS_DATA_ERROR, Send(file.Get(), row.Class, buffer, 64).Status);
    }
    uint64_t buffer[8] = {};
    Handle directory = OpenOrFail("\\dir");
    FileReference directoryFile(directory.Get());
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, Send(directoryFile.Get(), FilePositionInformation, buffer, 8).Status);

    const support::InsideOtherWork nested;
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, Send(file.Get(), FileRenameInformation, buffer, 64).Status);
    EXPECT_STATUS(STATUS_SUCCESS, Send(file.Get(), FilePositionInformation, buffer, 8).Status);
}

TEST_F(SetInfo, SendsTimesAndAttributesThatAreGiven)
{
    Handle file = OpenOrFail("\\file", kAll);
    Handle directory = OpenOrFail("\\dir", {.Access = FILE_GENERIC_READ | FILE_WRITE_ATTRIBUTES});
    struct Row {
        HANDLE File;
        ULONG Attributes;
        LONGLONG Write;
        NTSTATUS Expected;
        Lines Calls;
    };
    const Row rows[] = {
        {file.Get(), 0, 0, STATUS_SUCCESS, {}},
        {file.Get(), 0, -1, STATUS_SUCCESS, {}}, // no change either
        {file.Get(), 0, 5000, STATUS_SUCCESS, {"SetTime 0 0 5000 0"}},
        {file.Get(), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_TEMPORARY, 0, STATUS_SUCCESS, {"SetAttr 2"}},
        {file.Get(), FILE_ATTRIBUTE_NORMAL, 0, STATUS_SUCCESS, {"SetAttr 0"}},
        {file.Get(), FILE_ATTRIBUTE_DIRECTORY, 7000, STATUS_INVALID_PARAMETER, {"SetTime 0 0 7000 0"}},
        {directory.Get(), FILE_ATTRIBUTE_NORMAL, 0, STATUS_SUCCESS, {"SetAttr 16"}},
        {directory.Get(), FILE_ATTRIBUTE_HIDDEN, 0, STATUS_SUCCESS, {"SetAttr 18"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::to_string(row.Attributes) + " " + std::to_string(row.Write));
        TakeCalls();
        EXPECT_STATUS(row.Expected, support::SetBasic(row.File, row.Attributes, 0, 0, row.Write));
        Lines expected = {"GetInfo"};
        expected.insert(expected.end(), row.Calls.begin(), row.Calls.end());
        EXPECT_EQ(TakeCalls(), expected);
    }
    NTSTATUS status;
    EXPECT_EQ(QueryAs<FILE_BASIC_INFORMATION>(file.Get(), FileBasicInformation, &status).LastWriteTime.QuadPart, 7000);
}

TEST_F(SetInfo, ForgivesAPluginWithoutTimesButNotWithoutAttributes)
{
    Handle file = OpenOrFail("\\file", kAll);
    Plugin().Fail("SetTime", STATUS_NOT_SUPPORTED);
    EXPECT_STATUS(STATUS_SUCCESS, support::SetBasic(file.Get(), FILE_ATTRIBUTE_HIDDEN, 1000));
    Plugin().Table()->SetTime = nullptr;
    EXPECT_STATUS(STATUS_SUCCESS, support::SetBasic(file.Get(), FILE_ATTRIBUTE_SYSTEM, 1000));
    NTSTATUS status;
    EXPECT_EQ(QueryAs<FILE_BASIC_INFORMATION>(file.Get(), FileBasicInformation, &status).FileAttributes,
              ULONG(FILE_ATTRIBUTE_SYSTEM));
    Plugin().Table()->SetAttr = nullptr;
    EXPECT_STATUS(STATUS_NOT_SUPPORTED, support::SetBasic(file.Get(), FILE_ATTRIBUTE_HIDDEN));
}

TEST_F(SetInfo, MakesReadOnlyAndWritableAgain)
{
    Handle first = OpenOrFail("\\file", {.Access = FILE_GENERIC_READ | FILE_WRITE_ATTRIBUTES});
    const Fcb* const fcb = Find("\\file");
    EXPECT_STATUS(STATUS_SUCCESS, support::SetBasic(first.Get(), FILE_ATTRIBUTE_READONLY));
    EXPECT_FALSE(fcb->MaxAllowedAccess & GVND_ACCESS_WRITE);
    EXPECT_FALSE(fcb->PluginFdCurrentAccess & GVND_ACCESS_WRITE);
    EXPECT_STATUS(STATUS_ACCESS_DENIED, Open("\\file", {.Access = FILE_GENERIC_WRITE}).Status);
    EXPECT_STATUS(STATUS_SUCCESS, support::SetBasic(first.Get(), FILE_ATTRIBUTE_NORMAL));
    EXPECT_TRUE(fcb->MaxAllowedAccess & GVND_ACCESS_WRITE);
    EXPECT_FALSE(fcb->PluginFdCurrentAccess & GVND_ACCESS_WRITE);
    EXPECT_TRUE(fcb->PluginFdRefreshNeeded);
    TakeCalls();
    Handle writer = OpenOrFail("\\file", {.Access = FILE_GENERIC_WRITE});
    EXPECT_EQ(TakeCalls(), (Lines{"Lookup \\file", "Open \\file 15", "Close", "AccessCheck \\file 2 7"}));
    EXPECT_FALSE(fcb->PluginFdRefreshNeeded);
    EXPECT_STATUS(STATUS_SUCCESS, support::Write(writer.Get(), "w", 0).Status);
}

TEST_F(SetInfo, DerivesTheSizeThatIsNotGiven)
{
    Handle file = OpenOrFail("\\file", kAll);
    struct Row {
        bool EndOfFile; // or the allocation
        LONGLONG Value;
        const char* Call;
        LONGLONG Size;
        bool Changes;
    };
    // memfs allocates in units of 4096.
    const Row rows[] = {
        {false, 100, "SetFileSize 10 100", 10, false},      // room for more: the end stays
        {true, 10, "SetFileSize 10 4096", 10, false},       // the same end: asked all the same
        {true, 6000, "SetFileSize 6000 6000", 6000, true},  // both grow
        {true, 5000, "SetFileSize 5000 8192", 5000, true},  // the allocation never shrinks this way
        {false, 3000, "SetFileSize 3000 3000", 3000, true}, // below the end: a truncation
        {false, 0, "SetFileSize 0 0", 0, true},
    };
    Ccb* const ccb = GvCcbOf(FileReference(file.Get()).Get());
    for (const Row& row : rows) {
        SCOPED_TRACE(row.Call);
        TakeCalls();
        ccb->LastWriteChanged = 0;
        EXPECT_STATUS(STATUS_SUCCESS, row.EndOfFile ? support::SetSize(file.Get(), row.Value)
                                                    : support::SetAllocation(file.Get(), row.Value));
        EXPECT_EQ(TakeCalls(), (Lines{"GetInfo", row.Call}));
        EXPECT_EQ(Find("\\file")->Header.FileSize.QuadPart, row.Size);
        EXPECT_EQ(Sizes(file.Get()).EndOfFile.QuadPart, row.Size);
        EXPECT_EQ(ccb->LastWriteChanged, row.Changes);
    }
    Plugin().Fail("SetFileSize", STATUS_DISK_FULL);
    EXPECT_STATUS(STATUS_DISK_FULL, support::SetSize(file.Get(), 77));
    EXPECT_EQ(Find("\\file")->Header.FileSize.QuadPart, 0);

    Handle directory = OpenOrFail("\\dir", {.Access = FILE_ADD_FILE | SYNCHRONIZE});
    EXPECT_STATUS(STATUS_INVALID_DEVICE_REQUEST, support::SetSize(directory.Get(), 0));
    EXPECT_STATUS(STATUS_INVALID_DEVICE_REQUEST, support::SetAllocation(directory.Get(), 0));
}

} // namespace
} // namespace opening
