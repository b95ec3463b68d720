// Information about files: each class at its least length and one byte below, what the plugin must agree about, names
// that do not fit.

#include "open_volume.h"

#include "support/file.h"
#include "support/handmade.h"

namespace opening {
namespace {

using support::Outcome;
using support::Query;

class QueryInfo : public VolumeTest {
protected:
    // As a request of its own, with a length that the service would not pass on.
    Outcome Ask(PFILE_OBJECT file, FILE_INFORMATION_CLASS infoClass, void* buffer, ULONG length)
    {
        support::HandMade request(Device(), file, IRP_MJ_QUERY_INFORMATION);
        request.Irp()->AssociatedIrp.SystemBuffer = buffer;
        request.Stack()->Parameters.QueryFile.Length = length;
        request.Stack()->Parameters.QueryFile.FileInformationClass = infoClass;
        const NTSTATUS status = request.Send();
        return {status, request.Information()};
    }
};

TEST_F(QueryInfo, HasALeastLengthPerClass)
{
    Handle handle = OpenOrFail("\\dir\\file");
    FileReference file(handle.Get());
    const ULONG name = 2 * 9; // \dir\file
    struct Row {
        FILE_INFORMATION_CLASS Class;
        ULONG Least;
        NTSTATUS Below;
        ULONG_PTR InformationBelow;
    };
    const Row rows[] = {
        {FileBasicInformation, 40, STATUS_BUFFER_TOO_SMALL, 39},
        {FileStandardInformation, 24, STATUS_BUFFER_TOO_SMALL, 23},
        {FileInternalInformation, 8, STATUS_BUFFER_TOO_SMALL, 7},
        {FileEaInformation, 4, STATUS_BUFFER_TOO_SMALL, 3},
        {FilePositionInformation, 8, STATUS_BUFFER_TOO_SMALL, 7},
        {FileNetworkOpenInformation, 56, STATUS_BUFFER_TOO_SMALL, 55},
        {FileNameInformation, 8 + name, STATUS_BUFFER_OVERFLOW, 7 + name}, // the overflow leaves the length
        {FileAllInformation, 104 + name, STATUS_BUFFER_OVERFLOW, 96},      // the stages before the name
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.Class);
        uint64_t buffer[64] = {};
        Outcome outcome = Ask(file.Get(), row.Class, buffer, row.Least);
        EXPECT_STATUS(STATUS_SUCCESS, outcome.Status);
        EXPECT_EQ(outcome.Information, row.Least);
        outcome = Ask(file.Get(), row.Class, buffer, row.Least - 1);
        EXPECT_STATUS(row.Below, outcome.Status);
        EXPECT_EQ(outcome.Information, row.InformationBelow);
    }
    for (const FILE_INFORMATION_CLASS unanswered :
         {FileAccessInformation, FileModeInformation, FileAlignmentInformation}) {
        uint64_t buffer[4];
        EXPECT_STATUS(STATUS_NOT_IMPLEMENTED, Ask(file.Get(), unanswered, buffer, 0).Status);
    }
    for (const FILE_INFORMATION_CLASS unknown :
         {FileAttributeTagInformation, FileStreamInformation, FileCompressionInformation}) {
        uint64_t buffer[4];
        EXPECT_STATUS(STATUS_INVALID_PARAMETER, Ask(file.Get(), unknown, buffer, 32).Status);
    }
}

struct Reported {
    static inline ULONG Attributes;
    static inline PluginGetInfoFn Inner;
    static inline void* InnerContext;
    static NTSTATUS NTAPI GetInfo(void*, PKEVENT cancel, PluginFd fd, PluginFileInfo** info)
    {
        const NTSTATUS status = Inner(InnerContext, cancel, fd, info);
        if (NT_SUCCESS(status)) (*info)->FileAttributes = Attributes, (*info)->FileId = ~0ull;
        return status;
    }
};

TEST_F(QueryInfo, ReportsAllInStages)
{
    Handle handle = OpenOrFail("\\file");
    FileReference file(handle.Get());
    const ULONG stages[] = {0, 40, 64, 72, 80, 96}; // the bytes before each stage
    for (int stage = 0; stage < 5; ++stage) {
        uint64_t buffer[32];
        const Outcome outcome = Ask(file.Get(), FileAllInformation, buffer, stages[stage + 1] - 1);
        EXPECT_STATUS(STATUS_BUFFER_TOO_SMALL, outcome.Status);
        EXPECT_EQ(outcome.Information, stages[stage]);
    }
    Reported::Attributes = FILE_ATTRIBUTE_NORMAL;
    Reported::Inner = std::exchange(Plugin().Table()->GetInfo, Reported::GetInfo);
    Reported::InnerContext = &Plugin();
    uint64_t buffer[32] = {};
    auto* const all = reinterpret_cast<PFILE_ALL_INFORMATION>(buffer);
    const Outcome outcome = Ask(file.Get(), FileAllInformation, all, 104);
    EXPECT_STATUS(STATUS_BUFFER_OVERFLOW, outcome.Status);
    EXPECT_EQ(outcome.Information, 96u);
    EXPECT_EQ(all->NameInformation.FileNameLength, 10u); // told all the same
    EXPECT_EQ(all->StandardInformation.EndOfFile.QuadPart, 10);
    EXPECT_EQ(all->StandardInformation.NumberOfLinks, 1u);
    EXPECT_EQ(all->StandardInformation.DeletePending, FALSE);
    EXPECT_EQ(all->InternalInformation.IndexNumber.QuadPart, -1); // the part behind it is cleared
}

TEST_F(QueryInfo, TellsTheNameWholeOrNotAtAll)
{
    Handle handle = OpenOrFail("\\FILE");
    uint64_t buffer[8] = {};
    auto* const info = reinterpret_cast<PFILE_NAME_INFORMATION>(buffer);
    const Outcome outcome = Query(handle.Get(), FileNameInformation, info, 10 + 4); // room for the name, not by count
    EXPECT_STATUS(STATUS_BUFFER_OVERFLOW, outcome.Status);
    EXPECT_EQ(info->FileNameLength, 10u);
    EXPECT_NE(info->FileName[0], L'\\');
    EXPECT_EQ(support::NameOf(handle.Get()), "\\FILE"); // the name it is known by
}

TEST_F(QueryInfo, HoldsThePluginToTheKindOfObject)
{
    struct Row {
        const char* Path;
        ULONG Told;
        NTSTATUS Expected;
        ULONG Seen;
    };
    const Row rows[] = {
        {"\\file", FILE_ATTRIBUTE_NORMAL, STATUS_SUCCESS, FILE_ATTRIBUTE_NORMAL},
        {"\\file", 0x10000, STATUS_SUCCESS, FILE_ATTRIBUTE_NORMAL}, // masked away
        {"\\file", FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_TEMPORARY, STATUS_SUCCESS, FILE_ATTRIBUTE_HIDDEN},
        {"\\file", FILE_ATTRIBUTE_DIRECTORY, STATUS_INVALID_PARAMETER, 0},
        {"\\dir", 0, STATUS_INVALID_PARAMETER, 0},
        {"\\dir", FILE_ATTRIBUTE_DIRECTORY, STATUS_SUCCESS, FILE_ATTRIBUTE_DIRECTORY},
    };
    Reported::Inner = std::exchange(Plugin().Table()->GetInfo, Reported::GetInfo);
    Reported::InnerContext = &Plugin();
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.Path) + " " + std::to_string(row.Told));
        Handle handle = OpenOrFail(row.Path);
        Reported::Attributes = row.Told;
        NTSTATUS status;
        const auto basic = support::QueryAs<FILE_BASIC_INFORMATION>(handle.Get(), FileBasicInformation, &status);
        EXPECT_STATUS(row.Expected, status);
        EXPECT_EQ(basic.FileAttributes, row.Seen);
    }
}

TEST_F(QueryInfo, NeedsALivePluginForEveryClass)
{
    Handle handle = OpenOrFail("\\file");
    FileReference file(handle.Get());
    uint64_t buffer[16];
    Plugin().Fail("GetInfo", STATUS_DISK_CORRUPT_ERROR);
    const Outcome failed = Ask(file.Get(), FilePositionInformation, buffer, 8);
    EXPECT_STATUS(STATUS_DISK_CORRUPT_ERROR, failed.Status);
    EXPECT_EQ(failed.Information, 0u);
    Plugin().Raise("GetInfo", STATUS_DATA_ERROR);
    EXPECT_STATUS(STATUS_ACCESS_VIOLATION, Ask(file.Get(), FileNameInformation, buffer, 128).Status);
    Plugin().Table()->GetInfo = nullptr;
    EXPECT_STATUS(STATUS_NOT_SUPPORTED, Ask(file.Get(), FileBasicInformation, buffer, 40).Status);

    Handle volume = OpenOrFail("");
    FileReference volumeFile(volume.Get());
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, Ask(volumeFile.Get(), FilePositionInformation, buffer, 8).Status);
}

TEST_F(QueryInfo, CountsTheEasOfAFile)
{
    Handle handle = OpenOrFail("\\file", {.Access = FILE_READ_EA | FILE_WRITE_EA | FILE_READ_ATTRIBUTES | SYNCHRONIZE});
    NTSTATUS status;
    const auto size = [&] {
        return support::QueryAs<FILE_EA_INFORMATION>(handle.Get(), FileEaInformation, &status).EaSize;
    };
    EXPECT_EQ(size(), 0u);
    support::SetEas(handle.Get(), support::EaList().Add("A", "1").Add("LONGER", "value").Bytes());
    EXPECT_EQ(size(), 12u + 20u); // 11 and 20 bytes, aligned each
    Plugin().Table()->ListEa = nullptr;
    EXPECT_EQ(size(), 0u);
    EXPECT_STATUS(STATUS_SUCCESS, status); // a plugin without EAs has files without EAs
}

} // namespace
} // namespace opening
