// Names that would stand for two things: empty components, separators in a new name, another spelling of the root or of
// a live object, a directory as its own child. And what a name's owner keeps when the name cannot be had.

#include <cstring>

#include <nthost/process.h>
#include <nthost/sections.h>

#include "objects/tree.h"
#include "open_requests.h"
#include "support/file.h"
#include "support/view.h"

namespace opening {
namespace {

using support::NameOf;
using support::Rename;

constexpr OpenRequest kAll = {.Access = FILE_GENERIC_READ | FILE_GENERIC_WRITE | DELETE};

class Naming : public VolumeTest {
protected:
    void TearDown() override
    {
        nthost::TrimSections();
        VolumeTest::TearDown();
    }
    static std::string Full(const std::string& path) { return "\\??\\Opening" + path; }
};

struct EmptyComponentRow {
    const char* Path;
    ULONG Disposition;
    NTSTATUS Expected;
    const char* Name; // of what was opened
};

// The walk skips one separator too many and ends at the second. What it has come to is opened under its own name; what
// would get a name of that kind is not made.
TEST_F(Naming, EmptyComponentsNameNothingNew)
{
    const EmptyComponentRow rows[] = {
        {"\\dir\\\\file", FILE_OPEN, STATUS_SUCCESS, "\\dir\\file"},
        {"\\dir\\\\\\x", FILE_OPEN, STATUS_SUCCESS, "\\dir"},
        {"\\\\x", FILE_OPEN, STATUS_SUCCESS, "\\"},
        {"\\dir\\\\new", FILE_OPEN_IF, STATUS_OBJECT_NAME_INVALID, nullptr},
        {"\\dir\\\\new", FILE_CREATE, STATUS_OBJECT_NAME_INVALID, nullptr},
    };
    for (const EmptyComponentRow& row : rows) {
        SCOPED_TRACE(row.Path);
        TakeCalls();
        const OpenResult opened = Open(row.Path, {.Disposition = row.Disposition});
        EXPECT_STATUS(row.Expected, opened.Status);
        for (const std::string& call : TakeCalls()) EXPECT_EQ(call.find("\\\\"), std::string::npos) << call;
        if (row.Name) EXPECT_EQ(NameOf(opened.File.Get()), row.Name);
        EXPECT_FALSE(Find(row.Path));
    }
    // The root by another path is the root all the same.
    EXPECT_STATUS(
        STATUS_CANNOT_DELETE,
        Open("\\\\x", {.Access = DELETE | SYNCHRONIZE, .Options = kSynchronous | FILE_DELETE_ON_CLOSE}).Status);
    EXPECT_STATUS(STATUS_SUCCESS, Open("\\").Status);
}

TEST_F(Naming, NewNamesAreOneComponent)
{
    struct Row {
        std::string Name;
        NTSTATUS Expected;
    };
    const Row rows[] = {
        {"dir\\x", STATUS_OBJECT_NAME_INVALID},
        {"a*b", STATUS_OBJECT_NAME_INVALID},
        {"a?", STATUS_OBJECT_NAME_INVALID},
        {"..", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {".", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {Full("\\\\x"), STATUS_OBJECT_NAME_INVALID},
        {Full("\\dir\\\\\\x"), STATUS_OBJECT_NAME_INVALID},
    };
    Handle file = OpenOrFail("\\file", kAll);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.Name);
        EXPECT_STATUS(row.Expected, Rename(file.Get(), row.Name, true));
        EXPECT_EQ(NameOf(file.Get()), "\\file"); // which asks the plugin: the handle is not closed
    }
    // A name of no length, and names beyond the buffer, which the services would refuse by themselves.
    const FileReference object(file.Get());
    for (const ULONG length : {0u, 20u, 0xffffu}) {
        FILE_RENAME_INFORMATION info = {};
        info.FileNameLength = length;
        HandMade rename(Device(), object.Get(), IRP_MJ_SET_INFORMATION);
        rename.Irp()->AssociatedIrp.SystemBuffer = &info;
        rename.Stack()->Parameters.SetFile.Length = sizeof info;
        rename.Stack()->Parameters.SetFile.FileInformationClass = FileRenameInformation;
        EXPECT_STATUS(length == 0 ? STATUS_OBJECT_NAME_INVALID : STATUS_INVALID_PARAMETER, rename.Send());
    }
    // What the plugin makes of a name is looked at too: two components, and none.
    static USHORT characters;
    Plugin().Table()->GetNormalizedPath = [](GVND_CALL, PCUNICODE_STRING, PUNICODE_STRING* normalized)
                                              NTAPI -> NTSTATUS {
        (void)context, (void)cancel;
        static WCHAR two[] = L"a\\b";
        *normalized = static_cast<PUNICODE_STRING>(ExAllocatePoolWithTag(PagedPool, sizeof(UNICODE_STRING), 'mron'));
        const auto length = static_cast<USHORT>(characters * sizeof(WCHAR));
        **normalized = {length, length, characters ? two : nullptr};
        return STATUS_SUCCESS;
    };
    for (const USHORT count : {3, 0}) {
        characters = count;
        EXPECT_STATUS(STATUS_OBJECT_NAME_INVALID, Rename(file.Get(), "\xc3\xa9"));
    }
    EXPECT_EQ(ReadText(file.Get(), 2), "01");
}

// By a caller of the kernel's, whose handle need not have DELETE and so does not exclude the open of the target.
TEST_F(Naming, ADirectoryDoesNotMoveIntoItself)
{
    Handle directory = OpenOrFail("\\empty", {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE});
    Handle target = OpenOrFail("\\empty", {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE});
    const FileReference source(directory.Get()), into(target.Get());
    const UNICODE_STRING name = std::exchange(into->FileName, *Text("x").Get());
    Text leaf("x");
    into->FileName = *leaf.Get();
    FILE_RENAME_INFORMATION info = {};
    {
        HandMade rename(Device(), source.Get(), IRP_MJ_SET_INFORMATION);
        rename.Irp()->AssociatedIrp.SystemBuffer = &info;
        rename.Stack()->Parameters.SetFile.Length = sizeof info;
        rename.Stack()->Parameters.SetFile.FileInformationClass = FileRenameInformation;
        rename.Stack()->Parameters.SetFile.FileObject = into.Get();
        EXPECT_STATUS(STATUS_ACCESS_DENIED, rename.Send());
    }
    into->FileName = name;
    EXPECT_EQ(Find("\\empty")->ParentFcb, Find("\\"));
}

// The platform's table would take both, and find either.
TEST_F(Naming, TreesTakeANameInOneCaseOnly)
{
    ServedRequest request(Device());
    GvTree* const tree = Volume()->FcbTables->DeletionTree;
    GvTreeEntry first = {}, second = {};
    ASSERT_STATUS(STATUS_SUCCESS, GvTreeAddEntry(tree, Text("\\a\\Name"), &first));
    EXPECT_STATUS(STATUS_UNSUCCESSFUL, GvTreeAddEntry(tree, Text("\\a\\NAME"), &second));
    EXPECT_STATUS(STATUS_SUCCESS, GvTreeAddEntry(tree, Text("\\a\\Name\\b"), &second));
    for (GvTreeEntry* entry : {&first, &second}) GvTreeRemoveEntryByVal(tree, entry);
}

// A second record of one file would be lost to whoever opens the name later.
TEST_F(Naming, AFileThatOutlivesItsHandlesKeepsItsNameInEveryCase)
{
    Handle victim = OpenOrFail("\\dir\\file", kAll);
    FileReference kept(victim.Get());
    victim.Close();
    Handle file = OpenOrFail("\\file", kAll);
    EXPECT_FALSE(NT_SUCCESS(Rename(file.Get(), Full("\\dir\\FILE"), true)));
    EXPECT_EQ(Find("\\dir\\FILE"), static_cast<Fcb*>(kept->FsContext));
}

// A refused replacement takes nothing: what a view has changed is still there.
TEST_F(Naming, ARefusedReplacementKeepsTheDestinationsPages)
{
    for (const char* refuses : {"AccessCheck", "Delete"}) {
        SCOPED_TRACE(refuses);
        {
            Handle victim = OpenOrFail("\\dir\\file", kAll);
            support::View view(victim.Get());
            ASSERT_STATUS(STATUS_SUCCESS, view.Put(0, std::string("KEPT ") + refuses[0]));
        }
        Handle file = OpenOrFail("\\file", kAll);
        Handle target = OpenOrFail("\\dir");
        // The open of the target's directory asks too.
        Plugin().Fail(refuses, STATUS_ACCESS_DENIED, refuses[0] == 'A' ? 2 : 1);
        EXPECT_STATUS(STATUS_ACCESS_DENIED, Rename(file.Get(), "file", true, target.Get()));
        EXPECT_EQ(ReadText(OpenOrFail("\\dir\\file").Get(), 6), std::string("KEPT ") + refuses[0]);
    }
}

// Nor does a flush that fails: the purge behind it would throw away what has not gone out.
TEST_F(Naming, PagesThatCannotBeWrittenAreNotPurged)
{
    Handle file = OpenOrFail("\\file", kAll);
    support::View view(file.Get());
    ASSERT_STATUS(STATUS_SUCCESS, view.Put(0, "KEPT"));
    Plugin().Fail("Write", STATUS_DISK_FULL);
    (void)support::Flush(file.Get());
    EXPECT_EQ(view.Text(0, 4), "KEPT");
    EXPECT_STATUS(STATUS_SUCCESS, support::Flush(file.Get()));
    EXPECT_EQ(ReadText(file.Get(), 4, 0), "KEPT");
}

// Whoever has opened it for writing goes on writing, wherever it moves.
TEST_F(Naming, AFileMadeReadOnlyMovesWithItsWriters)
{
    Handle writer = OpenOrFail("\\file", kAll);
    ASSERT_STATUS(STATUS_SUCCESS, support::SetBasic(writer.Get(), FILE_ATTRIBUTE_READONLY));
    EXPECT_STATUS(STATUS_SUCCESS, support::Write(writer.Get(), "a", 0).Status);
    TakeCalls();
    EXPECT_STATUS(STATUS_SUCCESS, Rename(writer.Get(), "moved"));
    const Lines calls = TakeCalls();
    ASSERT_GE(calls.size(), 2u);
    // With what its handles were opened with; memfs refuses that much, and the file moves all the same.
    EXPECT_EQ(Lines(calls.end() - 2, calls.end()), (Lines{"Open \\moved 15", "Open \\moved 13"}));
    EXPECT_EQ(ReadText(writer.Get(), 3, 0), "a12");
    EXPECT_STATUS(STATUS_ACCESS_DENIED, Open("\\moved", kAll).Status); // who comes now is too late
}

// The plugin knows an object by its own name, and directories by their normalised ones.
TEST_F(Naming, ThePluginHearsTheNamesThatItKnows)
{
    Handle reader = OpenOrFail("\\file");
    TakeCalls();
    Handle writer = OpenOrFail("\\FILE", kAll);
    EXPECT_EQ(TakeCalls(), (Lines{"Lookup \\file", "Open \\file 15", "Close", "AccessCheck \\FILE 2 7"}));

    const std::string composed = "\\d\xc3\xa9", decomposed = "\\de\xcc\x81";
    MakeDir(composed);
    TakeCalls();
    EXPECT_STATUS(STATUS_SUCCESS, Rename(writer.Get(), Full(decomposed + "\\x")));
    Lines spelled;
    for (const std::string& call : TakeCalls())
        if (call.starts_with("AccessCheck") && call.find(decomposed) != std::string::npos) spelled.push_back(call);
    EXPECT_EQ(spelled, Lines{});
}

// A worker asks with the tokens of whoever asked it.
TEST_F(Naming, APendedRenameAsksForItsCaller)
{
    static void* asked;
    static PluginAccessCheckFn inner;
    inner = Plugin().Table()->AccessCheck;
    Plugin().Table()->AccessCheck = [](GVND_CALL, PCUNICODE_STRING path, ULONG constant, PluginAccessMask wanted,
                                       void** token) NTAPI -> NTSTATUS {
        asked = *token;
        return inner(context, cancel, path, constant, wanted, token);
    };
    Handle file = OpenOrFail("\\file", {.Access = FILE_READ_DATA | DELETE, .Options = 0});
    void* const caller = std::exchange(asked, nullptr);
    ASSERT_NE(caller, nullptr);
    MakeFile("\\victim");
    const FileReference object(file.Get());
    Text leaf("victim");
    alignas(FILE_RENAME_INFORMATION) char buffer[64] = {};
    auto* const info = reinterpret_cast<FILE_RENAME_INFORMATION*>(buffer);
    info->ReplaceIfExists = TRUE;
    info->FileNameLength = leaf.Get()->Length;
    std::memcpy(info->FileName, leaf.Get()->Buffer, leaf.Get()->Length);
    HandMade rename(Device(), object.Get(), IRP_MJ_SET_INFORMATION, 0, support::Caller::GoesOn);
    rename.Irp()->AssociatedIrp.SystemBuffer = buffer;
    rename.Stack()->Parameters.SetFile.Length = sizeof buffer;
    rename.Stack()->Parameters.SetFile.FileInformationClass = FileRenameInformation;
    EXPECT_STATUS(STATUS_PENDING, rename.Send());
    EXPECT_STATUS(STATUS_SUCCESS, rename.Status());
    EXPECT_EQ(rename.Information(), 0u);
    EXPECT_EQ(asked, caller);
}

} // namespace
} // namespace opening
