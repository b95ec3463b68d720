// From a name to paths: the four strings that an open works with, exactly; the plugin's normalisation; lengths.

#include "create/create.h"

#include <nthost/debug.h>

#include "open_requests.h"

namespace opening {
namespace {

// e and a combining acute accent, and the letter that they make.
constexpr char kDecomposed[] = "caf\x65\xcc\x81";
constexpr char kComposed[] = "caf\xc3\xa9";

class Paths : public VolumeTest {
protected:
    NTSTATUS Resolve(PUNICODE_STRING name, HANDLE related, ResolvedPaths* paths)
    {
        ServedRequest request(Device());
        std::optional<FileReference> directory;
        FILE_OBJECT file = {};
        file.FileName = *name;
        if (related) file.RelatedFileObject = directory.emplace(related).Get();
        return GvResolveName(request.Context(), &file, paths);
    }
};

struct ResolveRow {
    const char* What;
    HANDLE Related;
    std::string Name;
    std::string CasePreserved;
    std::string Full;
    std::string Walked;
    std::string Remaining;
    bool TrailingBackslash;
};

TEST_F(Paths, ResolvesToFourStrings)
{
    Handle root = OpenOrFail("\\"), dir = OpenOrFail("\\dir");
    const std::string spelled = kDecomposed, normal = kComposed;
    const ResolveRow rows[] = {
        {"root", nullptr, "\\", "\\", "\\", "", "\\", false},
        {"plain", nullptr, "\\A\\b", "\\A\\b", "\\A\\b", "", "\\A\\b", false},
        {"trailing", nullptr, "\\a\\", "\\a", "\\a", "", "\\a", true},
        {"many trailing", nullptr, "\\a\\\\\\", "\\a", "\\a", "", "\\a", true},
        {"nothing but backslashes", nullptr, "\\\\\\", "\\", "\\", "", "\\", true},
        {"relative", dir.Get(), "x\\y", "\\dir\\x\\y", "\\dir\\x\\y", "\\dir", "x\\y", false},
        {"relative to the root", root.Get(), "x", "\\x", "\\x", "\\", "x", false},
        {"the directory itself", dir.Get(), "", "\\dir", "\\dir", "\\dir", "", true},
        {"the root itself", root.Get(), "", "\\", "\\", "\\", "", false},
        {"normalised", nullptr, "\\" + spelled, "\\" + spelled, "\\" + normal, "", "\\" + normal, false},
        {"normalised, relative", dir.Get(), spelled, "\\dir\\" + spelled, "\\dir\\" + normal, "\\dir", normal, false},
    };
    for (const ResolveRow& row : rows) {
        SCOPED_TRACE(row.What);
        ResolvedPaths paths = {};
        ASSERT_STATUS(STATUS_SUCCESS, Resolve(Text(row.Name), row.Related, &paths));
        EXPECT_EQ(nthost::ToUtf8(paths.CasePreservedPath.Get()), row.CasePreserved);
        EXPECT_EQ(nthost::ToUtf8(paths.FullPath.Get()), row.Full);
        EXPECT_EQ(nthost::ToUtf8(paths.WalkedPath.Get()), row.Walked);
        EXPECT_EQ(nthost::ToUtf8(paths.RemainingPath.Get()), row.Remaining);
        EXPECT_EQ(paths.TrailingBackslash, row.TrailingBackslash);
    }
}

struct RefusedRow {
    const char* What;
    HANDLE Related;
    std::string Name;
    NTSTATUS Expected;
    const char* Trace;
};

TEST_F(Paths, RefusesInOrder)
{
    Handle dir = OpenOrFail("\\dir"), volume = OpenOrFail("");
    const RefusedRow rows[] = {
        {"absolute without a backslash", nullptr, "a", STATUS_OBJECT_PATH_SYNTAX_BAD, "bad absolute-name: 0x"},
        {"empty and absolute", nullptr, "", STATUS_OBJECT_PATH_SYNTAX_BAD, "bad absolute-name: 0x"},
        {"relative with one", dir.Get(), "\\a", STATUS_OBJECT_PATH_SYNTAX_BAD, "bad relative-name: 0x"},
        {"below the volume", volume.Get(), "a", STATUS_OBJECT_PATH_SYNTAX_BAD, "bad relative-name: 0x"},
        {"characters come before the form", nullptr, "a|b", STATUS_OBJECT_NAME_INVALID, "failed, char: 0x7c\n"},
        {"characters come before dots", nullptr, "\\..\\a*", STATUS_OBJECT_NAME_INVALID, "failed, char: 0x2a\n"},
        {"control character", nullptr, "\\a\x1f", STATUS_OBJECT_NAME_INVALID, "failed, char: 0x1f\n"},
        {"slash", nullptr, "\\a/b", STATUS_OBJECT_NAME_INVALID, "failed, char: 0x2f\n"},
        {"one dot", dir.Get(), ".", STATUS_OBJECT_PATH_SYNTAX_BAD, "ERR: path contains '.', or 0x0\n"},
        {"two dots at the end", dir.Get(), "a\\..", STATUS_OBJECT_PATH_SYNTAX_BAD, "ERR: path contains '..', or 0x0\n"},
        {"dots, then backslashes", nullptr, "\\a\\..\\\\", STATUS_OBJECT_PATH_SYNTAX_BAD, "contains '..'"},
    };
    for (const RefusedRow& row : rows) {
        SCOPED_TRACE(row.What);
        Trace().Clear();
        Plugin().Clear();
        ResolvedPaths paths = {};
        EXPECT_STATUS(row.Expected, Resolve(Text(row.Name), row.Related, &paths));
        EXPECT_TRUE(Trace().Contains(row.Trace)) << support::Join(Trace().Texts());
        EXPECT_TRUE(Plugin().Calls().empty());
    }
    // Every character below 128 that a name may not hold, and no other.
    const std::string illegal = "\"*/<>?|";
    for (char character = 1; character > 0; ++character) {
        ResolvedPaths paths = {};
        const bool legal = character >= 0x20 && illegal.find(character) == std::string::npos;
        EXPECT_STATUS(legal ? STATUS_SUCCESS : STATUS_OBJECT_NAME_INVALID,
                      Resolve(Text(std::string("\\a") + character), nullptr, &paths))
            << int(character);
    }
}

TEST_F(Paths, CarriesNamesOf65534Bytes)
{
    Handle dir = OpenOrFail("\\dir");
    Text longest("\\" + std::string(32766, 'x'));
    ASSERT_EQ(longest.Get()->Length, 65534u);
    {
        ResolvedPaths paths = {};
        ASSERT_STATUS(STATUS_SUCCESS, Resolve(longest, nullptr, &paths));
        EXPECT_EQ(paths.FullPath->Length, 65534u);
        EXPECT_EQ(paths.RemainingPath->Length, 65534u);
    }
    // What is put in front of a relative name counts too: "\dir" and the separator are ten bytes.
    for (const size_t characters : {32762u, 32763u}) {
        ResolvedPaths paths = {};
        const bool fits = characters * 2 + 10 < 65535;
        EXPECT_STATUS(fits ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES,
                      Resolve(Text(std::string(characters, 'y')), dir.Get(), &paths));
    }
    EXPECT_TRUE(Trace().Contains("out-of-mem 1\n"));
    // As the plugin gets it. Its answer for the last component is the answer of the open.
    EXPECT_STATUS(STATUS_OBJECT_NAME_INVALID, Open("\\dir\\" + std::string(32000, 'x')).Status);
    EXPECT_EQ(FcbCount(), 2u);
}

TEST_F(Paths, MatchesTheNormalisedForm)
{
    MakeFile(std::string("\\") + kComposed, "coffee");
    const std::string spelled = std::string("\\") + kDecomposed, normal = std::string("\\") + kComposed;
    Handle file = OpenOrFail(spelled);
    EXPECT_EQ(TakeCalls(), (Lines{"GetNormalizedPath " + spelled, "Lookup \\", "OpenDir \\ 1", "Lookup " + normal,
                                  "Open " + normal + " 9", "AccessCheck " + normal + " 2 1"}));
    Handle again = OpenOrFail(normal);
    EXPECT_EQ(Find(normal)->OpenCount, 2);
    EXPECT_EQ(Find(spelled), nullptr);
    TakeCalls();

    // Whatever is not ASCII may have another form.
    for (const char* last : {"\x7f", "\xc2\x80"}) {
        EXPECT_STATUS(STATUS_OBJECT_NAME_NOT_FOUND, Open(std::string("\\") + last).Status);
        EXPECT_EQ(Plugin().Count("GetNormalizedPath"), last[1] ? 1u : 0u);
    }
    TakeCalls();

    // Without the operation, names go as they came; with one that fails, the open does.
    Plugin().Fail("GetNormalizedPath", STATUS_DATA_ERROR);
    EXPECT_STATUS(STATUS_DATA_ERROR, Open(spelled).Status);
    EXPECT_EQ(TakeCalls(), (Lines{"GetNormalizedPath " + spelled}));
    Plugin().Table()->GetNormalizedPath = nullptr;
    Handle plain = OpenOrFail(spelled);
    EXPECT_EQ(TakeCalls(), (Lines{"Lookup " + spelled, "Open " + spelled + " 9", "AccessCheck " + spelled + " 2 1"}));
    EXPECT_NE(Find(spelled), nullptr);
}

// A live file in the middle of a path is not asked for its type: the plugin judges what should be below it.
TEST_F(Paths, ALiveFileInTheMiddleLeavesTheAnswerToThePlugin)
{
    EXPECT_STATUS(STATUS_OBJECT_PATH_SYNTAX_BAD, Open("\\file\\below").Status);
    Handle file = OpenOrFail("\\file");
    TakeCalls();
    const NTSTATUS below = Open("\\file\\below").Status;
    EXPECT_EQ(TakeCalls(), (Lines{"Lookup \\file\\below"}));
    EXPECT_FALSE(NT_SUCCESS(below));
    EXPECT_NE(below, STATUS_OBJECT_PATH_SYNTAX_BAD);
    EXPECT_STATUS(below, Open("below", {.Root = file.Get()}).Status); // as from a handle to the file
    EXPECT_EQ(TakeCalls(), (Lines{"Lookup \\file\\below"}));
    EXPECT_EQ(Find("\\file")->RefCount, 1);
}

TEST_F(Paths, AReparsePointGetsNoControlBlock)
{
    for (const char* path : {"\\link", "\\link\\"}) { // what stood behind the link's name goes with it
        SCOPED_TRACE(path);
        TakeCalls();
        Handle file = OpenOrFail(path);
        EXPECT_EQ(TakeCalls(),
                  (Lines{"Lookup \\", "OpenDir \\ 1", "Lookup \\link", "Close", "ReadLink \\link", "Lookup \\",
                         "OpenDir \\ 1", "Lookup \\file", "Open \\file 9", "AccessCheck \\file 2 1"}));
        EXPECT_EQ(FcbCount(), 2u);
        EXPECT_NE(Find("\\file"), nullptr);
    }
    EXPECT_STATUS(STATUS_OBJECT_PATH_SYNTAX_BAD, Open("\\link\\below").Status);
    EXPECT_EQ(FcbCount(), 0u);
}

} // namespace
} // namespace opening
