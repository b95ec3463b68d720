// Rename: each row of the destination's rules, what the plugin hears, what each failing step leaves, the name tree.

#include "open_volume.h"

#include "support/file.h"

namespace opening {
namespace {

using support::NameOf;
using support::Rename;

constexpr OpenRequest kRename = {.Access = FILE_GENERIC_READ | FILE_GENERIC_WRITE | DELETE};

class Renames : public VolumeTest {
protected:
    std::string Content(const std::string& path) { return support::ReadText(OpenOrFail(path).Get(), 100); }
    bool Exists(const std::string& path) { return Open(path).Status == STATUS_SUCCESS; }
    LONG Deletions(const std::string& path) { return Find(path)->ChildDeleteCount; }
    // A name that leaves the directory, as the system sees it.
    static std::string Full(const std::string& path) { return "\\??\\Opening" + path; }
};

TEST_F(Renames, MoveNamesAndKeepHandles)
{
    Handle first = OpenOrFail("\\file", kRename);
    Handle second = OpenOrFail("\\file");
    TakeCalls();
    EXPECT_STATUS(STATUS_SUCCESS, Rename(first.Get(), "Other"));
    EXPECT_EQ(TakeCalls(), (Lines{"Open \\Other 1", "OpenDir \\Other 1", // probes: nothing stands there
                                  "Close", "Rename \\file \\Other", "Open \\Other 15"}));
    EXPECT_EQ(NameOf(second.Get()), "\\Other");
    EXPECT_EQ(support::ReadText(second.Get(), 10), "0123456789");
    EXPECT_FALSE(Exists("\\file"));
    EXPECT_EQ(Deletions("\\"), 1);

    Handle target = OpenOrFail("\\dir");
    EXPECT_STATUS(STATUS_SUCCESS, Rename(first.Get(), Full("\\dir\\moved")));
    EXPECT_EQ(NameOf(second.Get()), "\\dir\\moved");
    EXPECT_EQ(Find("\\dir\\moved")->ParentFcb, Find("\\dir"));
    EXPECT_EQ(Deletions("\\"), 2);
    EXPECT_EQ(Deletions("\\dir"), 0); // has gained, not lost
    EXPECT_STATUS(STATUS_SUCCESS, Rename(first.Get(), "below", false, target.Get()));
    EXPECT_EQ(NameOf(first.Get()), "\\dir\\below");
    TakeCalls();
    EXPECT_STATUS(STATUS_SUCCESS, Rename(first.Get(), Full("\\back")));
    const Lines calls = TakeCalls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "AccessCheck \\ 2 3"), 1); // may the caller put a file there
}

TEST_F(Renames, OfCaseAloneAskNobody)
{
    Handle file = OpenOrFail("\\file", kRename);
    for (const char* name : {"FILE", "file"}) { // the same name too
        TakeCalls();
        EXPECT_STATUS(STATUS_SUCCESS, Rename(file.Get(), name));
        EXPECT_EQ(TakeCalls(),
                  (Lines{"Close", std::string("Rename \\file \\") + name, std::string("Open \\") + name + " 15"}));
        EXPECT_EQ(NameOf(file.Get()), "\\file"); // the key that it had
        EXPECT_EQ(Deletions("\\"), 0);
    }
}

TEST_F(Renames, FollowTheRulesOfTheDestination)
{
    MakeFile("\\victim", "victim");
    struct Row {
        const char* Name;
        const char* HeldOpen; // a handle there while it is tried
        bool Replace;
        NTSTATUS Expected;
    };
    const Row rows[] = {
        {"victim", nullptr, false, STATUS_OBJECT_NAME_COLLISION},
        {"dir", nullptr, true, STATUS_OBJECT_NAME_COLLISION},
        {"dir", "\\dir", true, STATUS_OBJECT_NAME_COLLISION},
        {"readonly", nullptr, true, STATUS_ACCESS_DENIED},
        {"readonly", "\\readonly", true, STATUS_ACCESS_DENIED},
        {"victim", "\\victim", true, STATUS_ACCESS_DENIED},
        {"victim", "\\victim", false, STATUS_OBJECT_NAME_COLLISION},
        {"link", nullptr, true, STATUS_ACCESS_DENIED},
        {"victim", nullptr, true, STATUS_SUCCESS},
    };
    Handle file = OpenOrFail("\\file", kRename);
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.Name) + (row.HeldOpen ? " open" : "") + (row.Replace ? " replace" : ""));
        Handle held;
        if (row.HeldOpen) held = OpenOrFail(row.HeldOpen);
        TakeCalls();
        EXPECT_STATUS(row.Expected, Rename(file.Get(), row.Name, row.Replace));
        const Lines calls = TakeCalls();
        EXPECT_EQ(std::count(calls.begin(), calls.end(), "Open \\" + std::string(row.Name) + " 1"), !row.HeldOpen);
        if (!NT_SUCCESS(row.Expected)) {
            EXPECT_EQ(NameOf(file.Get()), "\\file");
            EXPECT_EQ(std::count(calls.begin(), calls.end(), "Close"), calls.size() > 1 && !row.HeldOpen); // the probe
        }
    }
    EXPECT_EQ(Content("\\victim"), "0123456789");
    EXPECT_EQ(Deletions("\\"), 1); // of a simple name: the directory's loss is counted once
}

TEST_F(Renames, LeaveTheSourceAsFarAsTheyCame)
{
    MakeFile("\\victim", "victim");
    struct Row {
        const char* Operation;
        unsigned Nth;
        bool VictimStays;
        bool HandleClosed;
        const char* SourceNow; // on the plugin
    };
    const Row rows[] = {
        {"GetInfo", 1, true, false, "\\file"}, // of the probe
        {"AccessCheck", 1, true, false, "\\file"},
        {"Delete", 1, true, false, "\\file"},
        {"Close", 2, false, true, "\\file"}, // the first closes the probe
        {"Rename", 1, false, true, "\\file"},
        {"Open", 2, false, true, "\\victim"}, // renamed, and not open any more
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.Operation);
        Handle file = OpenOrFail("\\file", kRename);
        Plugin().Fail(row.Operation, STATUS_DISK_CORRUPT_ERROR, row.Nth);
        EXPECT_STATUS(STATUS_DISK_CORRUPT_ERROR, Rename(file.Get(), "victim", true));
        const Fcb* const fcb = Find("\\file");
        ASSERT_NE(fcb, nullptr); // the tree has not moved
        EXPECT_EQ(fcb->PluginFdClosed, row.HandleClosed);
        EXPECT_EQ(support::ReadText(file.Get(), 4), row.HandleClosed ? "<STATUS_INVALID_PARAMETER>" : "0123");
        file.Close();
        EXPECT_EQ(FcbCount(), 0u);
        EXPECT_EQ(Content(row.SourceNow), "0123456789");
        if (!row.VictimStays && std::string(row.SourceNow) == "\\file") {
            EXPECT_FALSE(Exists("\\victim"));
            MakeFile("\\victim", "victim");
        }
    }
    Plugin().Table()->Rename = nullptr;
    Handle file = OpenOrFail("\\victim", kRename);
    EXPECT_STATUS(STATUS_NOT_SUPPORTED, Rename(file.Get(), "other"));
    EXPECT_EQ(support::ReadText(file.Get(), 4), "0123"); // nothing was touched
}

TEST_F(Renames, CountALossOnBothSidesOfAReplacement)
{
    Handle dir = OpenOrFail("\\dir");
    Handle file = OpenOrFail("\\file", kRename);
    EXPECT_STATUS(STATUS_SUCCESS, Rename(file.Get(), Full("\\dir\\file"), true));
    EXPECT_EQ(Deletions("\\"), 1);
    EXPECT_EQ(Deletions("\\dir"), 1);
    EXPECT_EQ(Content("\\dir\\file"), "0123456789");
}

TEST_F(Renames, SurviveADestinationThatOutlivesItsHandles)
{
    MakeFile("\\victim", "victim");
    Handle victim = OpenOrFail("\\victim", kRename);
    FileReference stale(victim.Get()); // no handle, and yet a control block under that name
    victim.Close();
    Handle file = OpenOrFail("\\file", kRename);
    EXPECT_STATUS(STATUS_UNSUCCESSFUL, Rename(file.Get(), "victim", true)); // the tree cannot hold two
    EXPECT_EQ(support::ReadText(file.Get(), 4), "0123");                    // renamed on the plugin, with a live handle
    EXPECT_EQ(NameOf(file.Get()), "<STATUS_INVALID_PARAMETER>");
    EXPECT_STATUS(STATUS_SUCCESS, support::SetDelete(file.Get(), true));
    file.Close(); // a deletion that cannot find the name is dropped
    stale.Drop();
    EXPECT_EQ(FcbCount(), 0u);
    EXPECT_EQ(Content("\\victim"), "0123456789");
}

// Read-only is forgiven a directory that takes a name in; that nobody may read it is not.
TEST_F(Renames, NeedADirectoryThatThePluginLetsThemOpen)
{
    static PluginLookupFn inner;
    inner = std::exchange(Plugin().Table()->Lookup,
                          [](GVND_CALL, PCUNICODE_STRING path, PluginFileInfo** info, PluginAccessMask* access)
                              NTAPI -> NTSTATUS {
                                  const NTSTATUS status = inner(context, cancel, path, info, access);
                                  if (path->Length == 4 * sizeof(WCHAR)) *access = GVND_ACCESS_WRITE; // \dir
                                  return status;
                              });
    Handle file = OpenOrFail("\\file", kRename);
    EXPECT_STATUS(STATUS_ACCESS_DENIED, Rename(file.Get(), Full("\\dir\\x")));
}

TEST_F(Renames, HaveNameLimits)
{
    Handle file = OpenOrFail("\\file", kRename);
    EXPECT_STATUS(STATUS_OBJECT_NAME_INVALID, Rename(file.Get(), std::string(300, 'n'))); // memfs: 255 at most
    EXPECT_FALSE(NT_SUCCESS(Rename(file.Get(), std::string(32766, 'n'))));
}

} // namespace
} // namespace opening
