// Extended attributes, links, times, DOS attributes and the volume record.

#include <cstring>
#include <functional>

#include "volume.h"

namespace memfs_tests {

class AttributesTest : public MemFsTest {
protected:
    void SetUp() override
    {
        MemFsTest::SetUp();
        file = fs->Create(u"\\f");
    }
    NTSTATUS Set(PluginFd fd, const char* name, const std::string& value)
    {
        return fs->Call(&PluginOps::SetEa, fd, name, static_cast<const void*>(value.data()),
                        static_cast<ULONG>(value.size()));
    }
    // "-" if there is none.
    std::string Get(const char* name)
    {
        void* block = nullptr;
        ULONG length = 0;
        const NTSTATUS status = fs->Call(&PluginOps::GetEa, file, name, &block, &length);
        const Owned<void> value(block);
        EXPECT_EQ(status, value ? STATUS_SUCCESS : STATUS_NONEXISTENT_EA_ENTRY);
        return value ? std::string(static_cast<char*>(block), length) : "-";
    }
    std::string List()
    {
        char* block = nullptr;
        ULONG count = 77;
        EXPECT_EQ(fs->Call(&PluginOps::ListEa, file, &block, &count), STATUS_SUCCESS);
        const Owned<char> names(block);
        std::string all;
        for (const char* at = block; count != 0; --count, at += std::strlen(at) + 1) all += std::string(at) + ' ';
        return all;
    }
    PluginFd file = 0;
};

TEST_F(AttributesTest, EasAreKeptByUpperCaseName)
{
    EXPECT_EQ(List(), "");
    EXPECT_EQ(Set(file, "First", "one"), STATUS_SUCCESS);
    EXPECT_EQ(Set(file, "second", std::string("\0two", 4)), STATUS_SUCCESS);
    EXPECT_EQ(Set(file, "FIRST", "replaced"), STATUS_SUCCESS); // in its old place
    EXPECT_EQ(List(), "FIRST SECOND ");
    EXPECT_EQ(Get("first"), "replaced");
    EXPECT_EQ(Get("Second"), std::string("\0two", 4));
    EXPECT_EQ(Get("secon"), "-");
    EXPECT_EQ(Get("seconds"), "-");
    EXPECT_EQ(fs->Call(&PluginOps::DeleteEa, file, static_cast<const char*>("fIRST")), STATUS_SUCCESS);
    EXPECT_EQ(fs->Call(&PluginOps::DeleteEa, file, static_cast<const char*>("FIRST")), STATUS_NONEXISTENT_EA_ENTRY);
    EXPECT_EQ(List(), "SECOND ");
}

TEST_F(AttributesTest, EaLimitsLeaveTheOldValue)
{
    const std::string longest(255, 'n');
    ASSERT_EQ(Set(file, "A", "old"), STATUS_SUCCESS);
    ASSERT_EQ(Set(file, longest.c_str(), "v"), STATUS_SUCCESS);
    const struct {
        std::string Name;
        size_t Length;
        NTSTATUS Status;
    } rows[] = {
        {"", 1, STATUS_INVALID_EA_NAME},    {longest + "n", 1, STATUS_INVALID_EA_NAME},
        {"A", 0, STATUS_INVALID_PARAMETER}, {"A", 0x10000, STATUS_EA_TOO_LARGE},
        {"A", 0xff00, STATUS_EA_TOO_LARGE}, // together with the other one
    };
    for (const auto& row : rows) EXPECT_EQ(Set(file, row.Name.c_str(), std::string(row.Length, 'x')), row.Status);
    EXPECT_EQ(Get("A"), "old");
    ASSERT_EQ(fs->Call(&PluginOps::DeleteEa, file, longest.c_str()), STATUS_SUCCESS);
    EXPECT_EQ(Set(file, "A", std::string(0xff00, 'x')), STATUS_SUCCESS); // its own old value does not count
}

std::string Utf16Bytes(const std::u16string& text)
{
    return std::string(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(char16_t));
}

TEST_F(AttributesTest, TheLinkAttributeMakesALink)
{
    const auto readLink = [&](const char16_t* path, std::string* target) {
        PUNICODE_STRING block = nullptr, other = nullptr;
        const NTSTATUS status = fs->Call(&PluginOps::ReadLink, Text(path), &block, &other);
        const Owned<UNICODE_STRING> owned(block);
        EXPECT_EQ(other, nullptr);
        *target = block ? nthost::ToUtf8(block) : "";
        return status;
    };
    std::string target;
    EXPECT_EQ(readLink(u"\\f", &target), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(readLink(u"\\none", &target), STATUS_OBJECT_NAME_NOT_FOUND);

    const PluginFd root = fs->OpenDir(u"\\");
    EXPECT_EQ(Set(root, MEMFS_LINK_EA_NAME, Utf16Bytes(u"\\d")), STATUS_FILE_IS_A_DIRECTORY);
    for (const std::string& bad : {Utf16Bytes(u"relative"), std::string("\\"), std::string("\\\0x", 3)}) {
        EXPECT_EQ(Set(file, MEMFS_LINK_EA_NAME, bad), STATUS_OBJECT_PATH_SYNTAX_BAD);
    }
    EXPECT_EQ(fs->Info(file).FileAttributes, 0u);

    ASSERT_EQ(fs->Write(file, 0, "data"), STATUS_SUCCESS);
    ASSERT_EQ(Set(file, "$gvLink", Utf16Bytes(u"\\d\\x")), STATUS_SUCCESS);
    PluginFileInfo info = {};
    ASSERT_EQ(fs->Lookup(u"\\f", &info), STATUS_SUCCESS);
    EXPECT_EQ(info.FileAttributes, FILE_ATTRIBUTE_REPARSE_POINT);
    EXPECT_EQ(readLink(u"\\F", &target), STATUS_SUCCESS);
    EXPECT_EQ(target, "\\d\\x");
    ASSERT_EQ(fs->Call(&PluginOps::SetAttr, file, 0u), STATUS_SUCCESS); // does not undo the link
    EXPECT_EQ(fs->Info(file).FileAttributes, FILE_ATTRIBUTE_REPARSE_POINT);

    ASSERT_EQ(fs->Call(&PluginOps::DeleteEa, file, MEMFS_LINK_EA_NAME), STATUS_SUCCESS);
    EXPECT_EQ(fs->Info(file).FileAttributes, 0u);
    EXPECT_EQ(fs->ReadAll(file), "data");
}

TEST_F(AttributesTest, AttributesKeepWhatTheObjectIs)
{
    const PluginFd directory = fs->CreateDir(u"\\d");
    const struct {
        PluginFd Fd;
        ULONG Set, Got;
    } rows[] = {
        {file, 0x27, 0x27},   {file, 0xffffffff, 0x27},      {file, FILE_ATTRIBUTE_NORMAL, 0},
        {directory, 0, 0x10}, {directory, 0xffffffff, 0x37},
    };
    for (const auto& row : rows) {
        ASSERT_EQ(fs->Call(&PluginOps::SetAttr, row.Fd, row.Set), STATUS_SUCCESS);
        EXPECT_EQ(fs->Info(row.Fd).FileAttributes, row.Got);
    }
}

enum class Moves { Nothing, Change, WriteAndChange };

// What each operation does to the times of its file, and whether it touches the directory. All times are in the past at
// the start of each row.
TEST_F(AttributesTest, TimesFollowWhatIsDone)
{
    const PluginFd root = fs->OpenDir(u"\\");
    std::string bytes;
    const struct {
        const char* What;
        std::function<NTSTATUS()> Do;
        Moves File, Directory;
    } rows[] = {
        {"read", [&] { return fs->Read(file, 0, 0, &bytes); }, Moves::Nothing, Moves::Nothing},
        {"write", [&] { return fs->Write(file, 0, "x"); }, Moves::WriteAndChange, Moves::Nothing},
        {"resize", [&] { return fs->Resize(file, 5); }, Moves::WriteAndChange, Moves::Nothing},
        {"allocate", [&] { return fs->Resize(file, 5, 9999); }, Moves::Change, Moves::Nothing},
        {"attributes", [&] { return fs->Call(&PluginOps::SetAttr, file, 2u); }, Moves::Change, Moves::Nothing},
        {"set EA", [&] { return Set(file, "E", "v"); }, Moves::Change, Moves::Nothing},
        {"delete no EA", [&] { return fs->Call(&PluginOps::DeleteEa, file, "N") ? STATUS_SUCCESS : 1; }, Moves::Nothing,
         Moves::Nothing},
        {"no times", [&] { return fs->Call(&PluginOps::SetTime, file, 0ll, 0ll, 0ll, 0ll); }, Moves::Nothing,
         Moves::Nothing},
        {"create", [&] { return fs->Create(u"\\g") ? STATUS_SUCCESS : 1; }, Moves::Nothing, Moves::WriteAndChange},
        {"delete", [&] { return fs->Call(&PluginOps::Delete, Text(u"\\g")); }, Moves::Nothing, Moves::WriteAndChange},
        {"rename", [&] { return fs->Call(&PluginOps::Rename, Text(u"\\f"), Text(u"\\h")); }, Moves::Change,
         Moves::WriteAndChange},
    };
    const auto expect = [&](PluginFd fd, Moves moves) {
        const PluginFileInfo info = fs->Info(fd);
        EXPECT_EQ(info.CreationTime, 1);
        EXPECT_EQ(info.LastAccessTime, 2);
        EXPECT_EQ(info.LastWriteTime != 3, moves == Moves::WriteAndChange);
        EXPECT_EQ(info.ChangeTime != 4, moves != Moves::Nothing);
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.What);
        for (const PluginFd fd : {file, root}) {
            ASSERT_EQ(fs->Call(&PluginOps::SetTime, fd, 1ll, 2ll, 3ll, 4ll), STATUS_SUCCESS);
        }
        EXPECT_EQ(row.Do(), STATUS_SUCCESS);
        expect(file, row.File);
        expect(root, row.Directory);
    }
}

TEST_F(AttributesTest, TheVolumeRecordIsInBytes)
{
    Volume small(10 * 4096 + 1);
    Owned<PluginVolInfo> info = small.VolumeInfo();
    EXPECT_EQ(info->BytesPerSector, 1u);
    EXPECT_EQ(info->SectorsPerAllocationUnit, 4096u);
    EXPECT_EQ(info->TotalAllocationUnits, 10u);
    EXPECT_EQ(info->AvailableAllocationUnits, 10u);
    EXPECT_EQ(info->VolumeLabelLength, 0u);
    const std::u16string longest(32, u'L');
    ASSERT_EQ(small.Call(&PluginOps::SetVolLabel, Text(longest)), STATUS_SUCCESS);
    EXPECT_EQ(small.Call(&PluginOps::SetVolLabel, Text(longest + u"L")), STATUS_INVALID_VOLUME_LABEL);
    info = small.VolumeInfo();
    EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(info->VolumeLabel), info->VolumeLabelLength / 2), longest);
}

TEST_F(HostTest, OptionsAreChecked)
{
    const Text tooLong(std::u16string(33, u'L')), label(u"Label");
    const struct {
        MemFsOptions Options;
        NTSTATUS Status;
    } rows[] = {
        {{0, label, 5}, STATUS_SUCCESS},
        {{4095, nullptr, 0}, STATUS_INVALID_PARAMETER},
        {{(1ull << 46) + 1, nullptr, 0}, STATUS_INVALID_PARAMETER},
        {{0, tooLong, 0}, STATUS_INVALID_VOLUME_LABEL},
    };
    for (const auto& row : rows) {
        PluginOps* ops = nullptr;
        EXPECT_EQ(MemFsCreate(&row.Options, &ops), row.Status);
        EXPECT_EQ(ops != nullptr, NT_SUCCESS(row.Status));
        if (ops) MemFsDestroy(ops);
    }
}

} // namespace memfs_tests
