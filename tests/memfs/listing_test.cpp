// Directory listings: order, dots, places, and a directory large enough to show a linear walk.

#include <algorithm>
#include <random>

#include "volume.h"

namespace memfs_tests {

class ListingTest : public MemFsTest {
protected:
    std::vector<std::u16string> List(const Text& path)
    {
        const PluginFd fd = fs->OpenDir(path);
        std::vector<std::u16string> names;
        for (ULONG index = 0;; ++index) {
            const std::u16string name = fs->NameAt(fd, index);
            if (name.empty()) break;
            names.push_back(name);
        }
        fs->Close(fd);
        return names;
    }
};

using Names = std::vector<std::u16string>;

TEST_F(ListingTest, NamesComeInUpcasedOrderBehindTheDots)
{
    EXPECT_EQ(List(u"\\"), Names{});
    fs->MakeDir(u"\\d");
    EXPECT_EQ(List(u"\\d"), (Names{u".", u".."}));
    for (const char16_t* name : {u"b", u"A", u"\u00e9", u"_", u"aB", u"ab1", u"Z"}) {
        fs->Make(std::u16string(u"\\d\\") + name);
    }
    // Compared in upper case, '_' follows the letters.
    EXPECT_EQ(List(u"\\d"), (Names{u".", u"..", u"A", u"aB", u"ab1", u"b", u"Z", u"_", u"\u00e9"}));
    EXPECT_EQ(List(u"\\"), Names{u"d"});
}

TEST_F(ListingTest, EntriesCarryTheInformationOfTheirObjects)
{
    const PluginFd directory = fs->CreateDir(u"\\d"), file = fs->Create(u"\\d\\f");
    ASSERT_EQ(fs->Write(file, 0, "12345"), STATUS_SUCCESS);
    ASSERT_EQ(fs->Call(&PluginOps::SetAttr, file, FILE_ATTRIBUTE_HIDDEN), STATUS_SUCCESS);
    ASSERT_EQ(fs->Call(&PluginOps::SetTime, file, 1ll, 2ll, 3ll, 4ll), STATUS_SUCCESS);
    ASSERT_EQ(fs->Call(&PluginOps::SetTime, fs->OpenDir(u"\\"), 11ll, 12ll, 13ll, 14ll), STATUS_SUCCESS);
    for (const auto& [index, times] : {std::pair<ULONG, LONGLONG>{2, 1}, {1, 11}}) { // ".." is the root
        PluginDirEntry* block = nullptr;
        ASSERT_EQ(fs->Call(&PluginOps::ReadDirEntry, directory, index, &block), STATUS_SUCCESS);
        const Owned<PluginDirEntry> entry(block);
        EXPECT_EQ(entry->CreationTime, times);
        EXPECT_EQ(entry->LastAccessTime, times + 1);
        EXPECT_EQ(entry->LastWriteTime, times + 2);
        EXPECT_EQ(entry->ChangeTime, times + 3);
        EXPECT_EQ(entry->EndOfFile, index == 2 ? 5 : 0);
        EXPECT_EQ(entry->AllocationSize, index == 2 ? 4096 : 0);
        EXPECT_EQ(entry->FileAttributes, index == 2 ? FILE_ATTRIBUTE_HIDDEN : FILE_ATTRIBUTE_DIRECTORY);
    }
    PluginDirEntry* none = nullptr;
    EXPECT_EQ(fs->Call(&PluginOps::ReadDirEntry, file, 0u, &none), STATUS_NOT_A_DIRECTORY);
    EXPECT_EQ(fs->Call(&PluginOps::ReadDirEntry, directory, 0xffffffffu, &none), STATUS_NO_MORE_FILES);
}

// Made from both ends to the middle, which is the worst for a tree that does not balance, and removed in no order: the
// places are those of the sorted names.
TEST_F(ListingTest, AHundredThousandEntriesAreFoundByPlace)
{
    constexpr ULONG kEntries = 100000;
    std::mt19937 random(7);
    Names names(kEntries);
    for (ULONG i = 0; i < kEntries; ++i) {
        const std::string number = std::to_string(1000000 + i);
        names[i] = std::u16string(number.begin(), number.end());
    }
    for (ULONG i = 0; i < kEntries / 2; ++i) {
        fs->Make(u"\\" + names[i]);
        fs->Make(u"\\" + names[kEntries - 1 - i]);
    }
    const PluginFd root = fs->OpenDir(u"\\");
    for (ULONG i = 0; i < kEntries; i += 3) ASSERT_EQ(fs->NameAt(root, i), names[i]);

    std::shuffle(names.begin(), names.end(), random);
    for (ULONG i = 0; i < kEntries / 4; ++i) {
        ASSERT_EQ(fs->Call(&PluginOps::Delete, Text(u"\\" + names[i])), STATUS_SUCCESS);
    }
    names.erase(names.begin(), names.begin() + kEntries / 4);
    std::sort(names.begin(), names.end());
    for (ULONG i = 0; i < names.size(); i += 3) ASSERT_EQ(fs->NameAt(root, i), names[i]);
    EXPECT_EQ(fs->NameAt(root, static_cast<ULONG>(names.size())), u"");
}

// The places of later entries move up by one; nothing else does.
TEST_F(ListingTest, DeletingShiftsWhatFollows)
{
    for (const char16_t* name : {u"\\a", u"\\b", u"\\c", u"\\d"}) fs->Make(name);
    const PluginFd root = fs->OpenDir(u"\\");
    ASSERT_EQ(fs->Call(&PluginOps::Delete, Text(u"\\b")), STATUS_SUCCESS);
    EXPECT_EQ(fs->NameAt(root, 0), u"a");
    EXPECT_EQ(fs->NameAt(root, 1), u"c");
    EXPECT_EQ(fs->NameAt(root, 3), u"");
}

} // namespace memfs_tests
