// The records of a listing, byte by byte: six classes, the room that they take, what a buffer too small gets. The
// entries come from a table of the test's own, so that every field has a known value.

#include <algorithm>
#include <cstring>

#include "dirctl/records.h"
#include "open_requests.h"

namespace opening {
namespace {

constexpr LONGLONG kTimes[] = {0x0101010101010101, 0x0202020202020202, 0x0303030303030303, 0x0404040404040404};
constexpr LONGLONG kEndOfFile = 0x1122334455667788, kAllocation = 0x1122334455668000;

// Entry n is named by the n-th name; every third one is a link.
struct Scripted {
    static inline std::vector<std::u16string> Names;
    static inline unsigned Calls;

    static NTSTATUS NTAPI ReadDirEntry(void*, PKEVENT, PluginFd, ULONG index, PluginDirEntry** result)
    {
        ++Calls;
        if (index >= Names.size()) return STATUS_NO_MORE_FILES;
        const std::u16string& name = Names[index];
        const auto bytes = static_cast<ULONG>(name.size() * sizeof(WCHAR));
        auto* const entry =
            static_cast<PluginDirEntry*>(ExAllocatePoolWithTag(PagedPool, sizeof(PluginDirEntry) + bytes, 'tset'));
        *entry = {~0ull,      kTimes[0],   kTimes[1],           kTimes[2], kTimes[3],
                  kEndOfFile, kAllocation, AttributesOf(index), bytes,     {}};
        std::memcpy(entry->FileName, name.data(), bytes);
        *result = entry;
        return STATUS_SUCCESS;
    }
    static ULONG AttributesOf(ULONG index)
    {
        return index % 3 == 0 ? FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_ARCHIVE : FILE_ATTRIBUTE_HIDDEN;
    }
};

class Layout : public VolumeTest {
protected:
    void SetUp() override
    {
        VolumeTest::SetUp();
        Plugin().Table()->ReadDirEntry = Scripted::ReadDirEntry;
        Scripted::Names = {u"a", u"bcd", u"longer"};
        Scripted::Calls = 0;
        directory = OpenOrFail("\\", {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE});
    }
    void TearDown() override
    {
        directory.Close();
        VolumeTest::TearDown();
    }

    Handle directory;
};

struct ClassRow {
    FILE_INFORMATION_CLASS Class;
    ULONG Fixed;
    ULONG NameAt;
    ULONG TagAt;       // 0: no such field
    ULONG ShortNameAt; // of the short name's length
    ULONG FileIdAt;
};
constexpr ClassRow kClasses[] = {
    {FileDirectoryInformation, 72, 64, 0, 0, 0},
    {FileFullDirectoryInformation, 72, 68, 64, 0, 0},
    {FileBothDirectoryInformation, 96, 94, 64, 68, 0},
    {FileNamesInformation, 16, 12, 0, 0, 0},
    {FileIdBothDirectoryInformation, 112, 104, 64, 68, 96},
    {FileIdFullDirectoryInformation, 88, 80, 64, 0, 72},
};

template <typename T>
T At(const UCHAR* record, ULONG offset)
{
    T value;
    std::memcpy(&value, record + offset, sizeof value);
    return value;
}

void ExpectCommonFields(const UCHAR* record, ULONG index, ULONG nameBytes)
{
    for (int i = 0; i < 4; ++i) EXPECT_EQ(At<LONGLONG>(record, 8 + 8 * i), kTimes[i]);
    EXPECT_EQ(At<LONGLONG>(record, 40), kEndOfFile);
    EXPECT_EQ(At<LONGLONG>(record, 48), kAllocation);
    EXPECT_EQ(At<ULONG>(record, 56), Scripted::AttributesOf(index));
    EXPECT_EQ(At<ULONG>(record, 60), nameBytes);
}

TEST_F(Layout, EachClassPutsEachFieldInItsPlace)
{
    for (const ClassRow& row : kClasses) {
        SCOPED_TRACE(row.Class);
        alignas(8) UCHAR buffer[1024];
        std::memset(buffer, 0xee, sizeof buffer);
        const Outcome outcome =
            ListInto(directory.Get(), {.Class = row.Class, .Length = 1024, .Restart = true}, buffer);
        ASSERT_STATUS(STATUS_SUCCESS, outcome.Status);
        ULONG at = 0;
        for (ULONG index = 0; index < 3; ++index) {
            const std::u16string& name = Scripted::Names[index];
            const auto nameBytes = static_cast<ULONG>(2 * name.size());
            const ULONG size = (row.Fixed + nameBytes + 7) & ~7u;
            const UCHAR* const record = buffer + at;
            EXPECT_EQ(At<ULONG>(record, 0), index < 2 ? size : 0u);
            EXPECT_EQ(At<ULONG>(record, 4), index);
            if (row.Class == FileNamesInformation) {
                EXPECT_EQ(At<ULONG>(record, 8), nameBytes);
            } else {
                ExpectCommonFields(record, index, nameBytes);
            }
            if (row.TagAt) EXPECT_EQ(At<ULONG>(record, row.TagAt), index % 3 == 0 ? 0xa000000cu : 0u);
            if (row.ShortNameAt) EXPECT_EQ(At<UCHAR>(record, row.ShortNameAt), 0u);
            if (row.FileIdAt) EXPECT_EQ(At<LONGLONG>(record, row.FileIdAt), 0);
            EXPECT_EQ(std::memcmp(record + row.NameAt, name.data(), nameBytes), 0);
            at += size;
        }
        // The count includes what aligns the last record; behind it nothing is touched.
        EXPECT_EQ(outcome.Information, at);
        EXPECT_EQ(std::count(buffer + at, buffer + sizeof buffer, 0xee), std::ptrdiff_t(sizeof buffer - at));
    }
}

struct RoomRow {
    const char* What;
    ULONG Length;
    NTSTATUS Status;
    size_t Entries;
    ULONG_PTR Information;
    unsigned Calls;
};

// FileNamesInformation: "a" takes 24 bytes, "bcd" 24, "longer" 32. Room is compared with the aligned size.
TEST_F(Layout, FillsExactly)
{
    const RoomRow rows[] = {
        {"not one", 23, STATUS_BUFFER_OVERFLOW, 0, 0, 1},
        {"one to the byte", 24, STATUS_SUCCESS, 1, 24, 1}, // full: nobody has to look further
        {"one and not quite two", 47, STATUS_SUCCESS, 1, 24, 2},
        {"two", 48, STATUS_SUCCESS, 2, 48, 2},
        {"three but for alignment", 79, STATUS_SUCCESS, 2, 48, 3},
        {"three", 80, STATUS_SUCCESS, 3, 80, 3},
        {"three and the end", 81, STATUS_SUCCESS, 3, 80, 4},
    };
    for (const RoomRow& row : rows) {
        SCOPED_TRACE(row.What);
        Scripted::Calls = 0;
        std::vector<uint64_t> buffer(16, 0xeeeeeeeeeeeeeeee);
        const Outcome outcome = ListInto(directory.Get(), {.Length = row.Length, .Restart = true}, buffer.data());
        EXPECT_STATUS(row.Status, outcome.Status);
        EXPECT_EQ(outcome.Information, row.Information);
        EXPECT_EQ(Scripted::Calls, row.Calls);
        Listed listed{};
        if (NT_SUCCESS(outcome.Status)) {
            Decode(reinterpret_cast<UCHAR*>(buffer.data()), outcome.Information, FileNamesInformation, &listed);
        }
        EXPECT_EQ(listed.Names.size(), row.Entries);
        // No part of a record that did not fit.
        for (size_t i = row.Information / 8; i < buffer.size(); ++i) EXPECT_EQ(buffer[i], 0xeeeeeeeeeeeeeeee) << i;
    }
}

TEST_F(Layout, AnEmptyDirectoryAndAnEmptyBuffer)
{
    Scripted::Names.clear();
    EXPECT_STATUS(STATUS_NO_MORE_FILES, List(directory.Get()).Status);
    // No service sends a length of 0; the driver asks nothing of the plugin then.
    FileReference object(directory.Get());
    HandMade query(Device(), object.Get(), IRP_MJ_DIRECTORY_CONTROL, IRP_MN_QUERY_DIRECTORY);
    char buffer[8];
    query.Irp()->UserBuffer = buffer;
    query.Stack()->Parameters.QueryDirectory.FileInformationClass = FileNamesInformation;
    Scripted::Calls = 0;
    EXPECT_STATUS(STATUS_SUCCESS, query.Send());
    EXPECT_EQ(query.Information(), 0u);
    EXPECT_EQ(Scripted::Calls, 0u);
}

TEST_F(Layout, ManyEntriesComeOutOnceAndInOrder)
{
    constexpr int kEntries = 10000;
    Scripted::Names.clear();
    Lines expected;
    for (int i = 0; i < kEntries; ++i) {
        const std::string name = "entry " + std::to_string(i * 7919);
        expected.push_back(name);
        Scripted::Names.emplace_back(name.begin(), name.end());
    }
    for (const ULONG length : {512u, 65536u}) {
        Handle scan = OpenOrFail("\\", {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE});
        EXPECT_EQ(ListAll(scan.Get(), {.Length = length}), expected);
    }
}

// What the plugin's numbering cannot promise, the pattern's match must: every entry is looked at once.
TEST_F(Layout, MatchesByTheNormalisedName)
{
    Scripted::Names = {u"caf\u00e9", u"cafe\u0301s", u"CAF\u00c9", u"cafeteria"};
    struct Row {
        const char* Pattern;
        Lines Expected;
    };
    const Row rows[] = {
        {"caf\xc3\xa9", {"caf\xc3\xa9", "CAF\xc3\x89"}}, // equal but for case
        {"cafe\xcc\x81*", {"caf\xc3\xa9", "cafe\xcc\x81s", "CAF\xc3\x89"}},
        {"caf?", {"caf\xc3\xa9", "CAF\xc3\x89"}},
        {"*E*", {"cafeteria"}}, // the letters under accents are others
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.Pattern);
        Handle scan = OpenOrFail("\\", {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE});
        EXPECT_EQ(ListAll(scan.Get(), {.Pattern = row.Pattern}), row.Expected);
    }
    // An entry whose name cannot be normalised is skipped; a pattern that cannot be ends the query and is not kept.
    Handle scan = OpenOrFail("\\", {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE});
    Plugin().Fail("GetNormalizedPath", STATUS_DATA_ERROR);
    EXPECT_STATUS(STATUS_DATA_ERROR, List(scan.Get(), {.Pattern = "caf\xc3\xa9"}).Status);
    Plugin().Fail("GetNormalizedPath", STATUS_DATA_ERROR, 2);
    EXPECT_EQ(List(scan.Get(), {.Pattern = "*\xc3\xa9*"}).Names, (Lines{"cafe\xcc\x81s", "CAF\xc3\x89"}));
}

} // namespace
} // namespace opening
