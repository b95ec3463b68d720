// What paths lead to, what may be made, renamed and deleted, and what handles do in the meantime.

#include <nthost/pool.h>

#include "volume.h"

namespace memfs_tests {

// \Dir with File in it, \Dir\Sub, \readonly, and \link to \Dir.
class NamespaceTest : public MemFsTest {
protected:
    void SetUp() override
    {
        MemFsTest::SetUp();
        fs->MakeDir(u"\\Dir");
        fs->MakeDir(u"\\Dir\\Sub");
        fs->Make(u"\\Dir\\File");
        const PluginFd readOnly = fs->Create(u"\\readonly");
        EXPECT_EQ(fs->Call(&PluginOps::SetAttr, readOnly, FILE_ATTRIBUTE_READONLY), STATUS_SUCCESS);
        fs->Close(readOnly);
        const PluginFd link = fs->Create(u"\\link");
        EXPECT_EQ(fs->Call(&PluginOps::SetEa, link, MEMFS_LINK_EA_NAME, static_cast<const void*>(u"\\Dir"), 8u),
                  STATUS_SUCCESS);
        fs->Close(link);
    }
};

struct OpenRow {
    const char16_t* Path;
    NTSTATUS Lookup, Open, OpenDir;
};

constexpr NTSTATUS kOk = STATUS_SUCCESS;
constexpr NTSTATUS kNoName = STATUS_OBJECT_NAME_NOT_FOUND;
constexpr NTSTATUS kNoPath = STATUS_OBJECT_PATH_NOT_FOUND;
constexpr NTSTATUS kBadName = STATUS_OBJECT_NAME_INVALID;

constexpr OpenRow kOpenRows[] = {
    {u"\\", kOk, STATUS_FILE_IS_A_DIRECTORY, kOk},
    {u"\\dir", kOk, STATUS_FILE_IS_A_DIRECTORY, kOk},
    {u"\\DIR\\fILE", kOk, kOk, STATUS_NOT_A_DIRECTORY},
    {u"\\link", kOk, kOk, STATUS_NOT_A_DIRECTORY}, // a rename has to be able to look at what it would replace
    {u"\\none", kNoName, kNoName, kNoName},
    {u"\\Dir\\none", kNoName, kNoName, kNoName},
    {u"\\none\\File", kNoPath, kNoPath, kNoPath},
    {u"\\Dir\\File\\x", kNoPath, kNoPath, kNoPath},
    {u"\\link\\File", kNoPath, kNoPath, kNoPath}, // links are the driver's to follow
    {u"\\Dir\\", kBadName, kBadName, kBadName},
    {u"\\Dir\\\\File", kBadName, kBadName, kBadName},
    {u"\\Dir\\..", kBadName, kBadName, kBadName},
    {u"Dir", STATUS_OBJECT_PATH_SYNTAX_BAD, STATUS_OBJECT_PATH_SYNTAX_BAD, STATUS_OBJECT_PATH_SYNTAX_BAD},
    {u"", STATUS_OBJECT_PATH_SYNTAX_BAD, STATUS_OBJECT_PATH_SYNTAX_BAD, STATUS_OBJECT_PATH_SYNTAX_BAD},
};

TEST_F(NamespaceTest, PathsLeadToObjects)
{
    for (const OpenRow& row : kOpenRows) {
        const Text path(row.Path);
        SCOPED_TRACE(nthost::ToUtf8(path));
        EXPECT_EQ(fs->Lookup(path), row.Lookup);
        PluginFd file = ~0ull, directory = ~0ull;
        EXPECT_EQ(fs->Call(&PluginOps::Open, path, GVND_ACCESS_READ, &file), row.Open);
        EXPECT_EQ(fs->Call(&PluginOps::OpenDir, path, GVND_ACCESS_READ, &directory), row.OpenDir);
        EXPECT_EQ(file != 0, row.Open == kOk);
        EXPECT_EQ(directory != 0, row.OpenDir == kOk);
    }
}

TEST_F(NamespaceTest, CreationNeedsAFreeLegalNameInADirectory)
{
    const std::u16string longest(255, u'x');
    const struct {
        std::u16string Path;
        NTSTATUS Status;
    } rows[] = {
        {u"\\", STATUS_OBJECT_NAME_COLLISION},
        {u"\\DIR", STATUS_OBJECT_NAME_COLLISION},
        {u"\\dir\\file", STATUS_OBJECT_NAME_COLLISION},
        {u"\\dir\\file\\x", kNoPath},
        {u"\\none\\x", kNoPath},
        {u"\\a*b", kBadName},
        {u"\\a:b", kBadName},
        {u"\\tab\there", kBadName},
        {u"\\.", kBadName},
        {u"\\..", kBadName},
        {u"\\" + longest + u"x", kBadName},
        {u"\\" + longest, kOk},
        {u"\\...", kOk},
        {u"\\Dir\\.hidden", kOk},
    };
    for (const auto& row : rows) {
        const Text path(row.Path);
        SCOPED_TRACE(nthost::ToUtf8(path));
        const uint64_t before = nthost::PoolTotals().LiveBlocks;
        PluginFd fd = ~0ull;
        EXPECT_EQ(fs->Call(&PluginOps::Create, path, &fd), row.Status);
        EXPECT_EQ(fd != 0, row.Status == kOk);
        EXPECT_EQ(nthost::PoolTotals().LiveBlocks == before, row.Status != kOk); // a refused object is gone again
        EXPECT_EQ(fs->Call(&PluginOps::CreateDir, path, &fd),
                  row.Status == kOk ? STATUS_OBJECT_NAME_COLLISION : row.Status);
    }
}

struct RenameRow {
    const char16_t* From;
    const char16_t* To;
    NTSTATUS Status;
};

constexpr RenameRow kRenameRows[] = {
    {u"\\none", u"\\x", kNoName},
    {u"\\none\\File", u"\\x", kNoPath},
    {u"\\Dir\\File", u"\\none\\x", kNoPath},
    {u"\\Dir\\File", u"\\readonly\\x", kNoPath},
    {u"\\Dir\\File", u"\\LINK", STATUS_OBJECT_NAME_COLLISION},
    {u"\\Dir\\File", u"\\Dir\\a|b", kBadName},
    {u"\\Dir\\File", u"\\", STATUS_OBJECT_NAME_COLLISION},
    {u"\\", u"\\x", STATUS_INVALID_PARAMETER},
    {u"\\Dir", u"\\Dir\\x", STATUS_INVALID_PARAMETER},
    {u"\\Dir", u"\\Dir\\Sub\\x", STATUS_INVALID_PARAMETER}, // a directory cannot hold itself
    {u"\\Dir\\File", u"\\dir\\FILE", kOk},
    {u"\\Dir\\File", u"\\Dir\\Sub\\Moved", kOk},
    {u"\\Dir", u"\\Other", kOk}, // with all that is in it
    {u"\\Other\\Sub\\moved", u"\\Back", kOk},
};

TEST_F(NamespaceTest, RenameMovesOneNameAtATime)
{
    for (const RenameRow& row : kRenameRows) {
        SCOPED_TRACE(nthost::ToUtf8(Text(row.From)) + " to " + nthost::ToUtf8(Text(row.To)));
        PluginFileInfo before = {}, after = {};
        const NTSTATUS found = fs->Lookup(row.From, &before);
        EXPECT_EQ(fs->Call(&PluginOps::Rename, Text(row.From), Text(row.To)), row.Status);
        EXPECT_EQ(fs->Lookup(row.Status == kOk ? row.To : row.From, &after), found);
        EXPECT_EQ(after.FileId, before.FileId);
    }
    EXPECT_EQ(fs->Lookup(u"\\Dir"), kNoName);
}

TEST_F(NamespaceTest, RenameByCaseAloneChangesTheSpelling)
{
    ASSERT_EQ(fs->Call(&PluginOps::Rename, Text(u"\\dir\\file"), Text(u"\\DIR\\fIlE")), kOk);
    EXPECT_EQ(fs->NameAt(fs->OpenDir(u"\\Dir"), 2), u"fIlE");
    EXPECT_EQ(fs->NameAt(fs->OpenDir(u"\\"), 0), u"Dir"); // only the last component is renamed
}

constexpr OpenRow kDeleteRows[] = {
    // Lookup afterwards; Open is the delete itself
    {u"\\", kOk, STATUS_CANNOT_DELETE, kOk}, {u"\\Dir", kOk, STATUS_DIRECTORY_NOT_EMPTY, kOk},
    {u"\\none", kNoName, kNoName, kOk},      {u"\\Dir\\File\\x", kNoPath, kNoPath, kOk},
    {u"\\dir\\SUB", kNoName, kOk, kOk},      {u"\\Dir\\File", kNoName, kOk, kOk},
    {u"\\link", kNoName, kOk, kOk},     // the link, not what it leads to
    {u"\\readonly", kNoName, kOk, kOk}, // the driver has asked before it comes here
    {u"\\Dir", kNoName, kOk, kOk},
};

TEST_F(NamespaceTest, DeleteTakesWhatIsEmpty)
{
    for (const OpenRow& row : kDeleteRows) {
        SCOPED_TRACE(nthost::ToUtf8(Text(row.Path)));
        EXPECT_EQ(fs->Call(&PluginOps::Delete, Text(row.Path)), row.Open);
        EXPECT_EQ(fs->Lookup(row.Path), row.Lookup);
    }
}

TEST_F(NamespaceTest, DeletedObjectsLiveUntilTheLastHandle)
{
    const ULONGLONG atFirst = fs->FreeUnits();
    const PluginFd first = fs->Open(u"\\Dir\\File"), second = fs->Open(u"\\Dir\\File");
    ASSERT_EQ(fs->Write(first, 0, "kept"), kOk);
    ASSERT_EQ(fs->Call(&PluginOps::Delete, Text(u"\\Dir\\File")), kOk);
    fs->Make(u"\\Dir\\File"); // the name is free at once
    fs->Close(first);
    EXPECT_EQ(fs->ReadAll(second), "kept");
    EXPECT_EQ(fs->FreeUnits(), atFirst - 1);
    fs->Close(second);
    EXPECT_EQ(fs->FreeUnits(), atFirst);

    const PluginFd directory = fs->OpenDir(u"\\Dir\\Sub");
    ASSERT_EQ(fs->Call(&PluginOps::Delete, Text(u"\\Dir\\Sub")), kOk);
    EXPECT_EQ(fs->NameAt(directory, 0), u""); // not even the dots: its parent may be gone next
}

TEST_F(NamespaceTest, StaleAndUnknownHandlesAreRefused)
{
    const PluginFd stale = fs->Open(u"\\Dir\\File");
    fs->Close(stale);
    const PluginFd reused = fs->Open(u"\\Dir\\File");
    ASSERT_NE(reused, stale);
    for (const PluginFd fd : {stale, PluginFd{0}, PluginFd{1} << 32, PluginFd{0xffffffff}, ~PluginFd{0}}) {
        SCOPED_TRACE(fd);
        PluginFileInfo* info = nullptr;
        PluginDirEntry* entry = nullptr;
        std::string bytes;
        EXPECT_EQ(fs->Read(fd, 0, 1, &bytes), STATUS_INVALID_HANDLE);
        EXPECT_EQ(fs->Write(fd, 0, "x"), STATUS_INVALID_HANDLE);
        EXPECT_EQ(fs->Resize(fd, 0), STATUS_INVALID_HANDLE);
        EXPECT_EQ(fs->Call(&PluginOps::GetInfo, fd, &info), STATUS_INVALID_HANDLE);
        EXPECT_EQ(fs->Call(&PluginOps::ReadDirEntry, fd, 0u, &entry), STATUS_INVALID_HANDLE);
        EXPECT_EQ(fs->Call(&PluginOps::FlushFile, fd), STATUS_INVALID_HANDLE);
        EXPECT_EQ(fs->Call(&PluginOps::Close, fd), STATUS_INVALID_HANDLE);
    }
    fs->Close(reused);
}

TEST_F(NamespaceTest, ReadOnlyFilesOfferAllButWriting)
{
    PluginAccessMask access = 0;
    ASSERT_EQ(fs->Lookup(u"\\readonly", nullptr, &access), kOk);
    EXPECT_EQ(access, GVND_ACCESS_ALL & ~GVND_ACCESS_WRITE);
    ASSERT_EQ(fs->Lookup(u"\\Dir\\File", nullptr, &access), kOk);
    EXPECT_EQ(access, GVND_ACCESS_ALL);

    PluginFd fd = 0;
    EXPECT_EQ(fs->Call(&PluginOps::Open, Text(u"\\readonly"), GVND_ACCESS_ALL, &fd), STATUS_ACCESS_DENIED);
    EXPECT_EQ(fs->Call(&PluginOps::Open, Text(u"\\readonly"), access & ~GVND_ACCESS_WRITE, &fd), kOk);

    const struct {
        const char16_t* Path;
        PluginAccessMask Wanted;
        NTSTATUS Status;
    } rows[] = {
        {u"\\readonly", GVND_ACCESS_WRITE, STATUS_ACCESS_DENIED},
        {u"\\readonly", GVND_ACCESS_READ | GVND_ACCESS_WRITE_ATTRIBUTES, kOk},
        {u"\\Dir\\File", GVND_ACCESS_ALL, kOk},
        {u"\\Dir\\new", GVND_ACCESS_WRITE, kOk}, // asked before the file is made
        {u"", GVND_ACCESS_WRITE, kOk},           // the volume
    };
    for (const auto& row : rows) {
        void* token = nullptr;
        EXPECT_EQ(fs->Call(&PluginOps::AccessCheck, Text(row.Path), 2u, row.Wanted, &token), row.Status);
    }
}

// A name is found in every spelling: with the mark joined or apart, in either case.
TEST_F(NamespaceTest, CombiningMarksAreJoined)
{
    fs->Make(u"\\cafe\u0301");
    for (const char16_t* path : {u"\\caf\u00e9", u"\\CAFE\u0301", u"\\CAF\u00c9"}) EXPECT_EQ(fs->Lookup(path), kOk);
    EXPECT_EQ(fs->Lookup(u"\\cafe"), kNoName);
    EXPECT_EQ(fs->NameAt(fs->OpenDir(u"\\"), 0), u"cafe\u0301"); // as its maker spelled it

    const struct {
        const char16_t* Given;
        const char16_t* Composed; // null: nothing to do
    } rows[] = {
        {u"\\Dir\\e\u0301", u"\\Dir\\\u00e9"},
        {u"A\u030aC\u0327", u"\u00c5\u00c7"},
        {u"e\u0301\u0301", u"\u00e9\u0301"},
        {u"\u00e9", nullptr},
        {u"q\u0301", nullptr},
        {u"\u0301e", nullptr},
        {u"\u4e2d", nullptr},
    };
    for (const auto& row : rows) {
        PUNICODE_STRING result = nullptr;
        const NTSTATUS status = fs->Call(&PluginOps::GetNormalizedPath, Text(row.Given), &result);
        const Owned<UNICODE_STRING> composed(result);
        EXPECT_EQ(status, row.Composed ? kOk : STATUS_NOT_SUPPORTED);
        if (row.Composed) { EXPECT_EQ(nthost::ToUtf8(composed.get()), nthost::ToUtf8(Text(row.Composed))); }
    }
}

// The end of the volume, and the test for a directory inside of itself, go up and down such a chain.
TEST_F(NamespaceTest, NestingIsLimitedByPathsAlone)
{
    std::u16string path;
    for (int depth = 0; depth < 2000; ++depth) {
        path += u"\\d";
        fs->MakeDir(path);
    }
    EXPECT_EQ(fs->Call(&PluginOps::Rename, Text(u"\\d"), Text(path + u"\\x")), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(fs->Lookup(path), kOk);
}

} // namespace memfs_tests
