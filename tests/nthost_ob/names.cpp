// Names: directories, symbolic links, and what of a path is left over for the object that was found.
#include <atomic>

#include "fixture.h"
#include <nthost/debug.h>

using namespace nthost;

namespace nthost_ob {

namespace {

OBJECT_TYPE g_leafType{.Name = "Leaf",
                       .Mapping = {},
                       .ValidAccess = 0,
                       .UsesDispatcherHeader = false,
                       .WaitOffset = 0,
                       .Close = nullptr,
                       .Delete = nullptr,
                       .Live = {}};

struct Leaf {
    void* Body = ob::CreateObject(&g_leafType, 16);
    explicit Leaf(const wchar_t* name) { EXPECT_EQ(ob::InsertName(Name(name), Body), STATUS_SUCCESS); }
    ~Leaf()
    {
        ob::RemoveName(Body);
        ObDereferenceObject(Body);
    }
};

class NameTest : public ObTest {
protected:
    // The path's fate, as "name|rest", or the status.
    static std::string Lookup(const wchar_t* path)
    {
        void* body = nullptr;
        std::u16string rest;
        const NTSTATUS status = ob::LookupPath(Name(path), &body, &rest);
        if (!NT_SUCCESS(status)) {
            EXPECT_EQ(body, nullptr);
            return nthost::StatusName(status);
        }
        const std::string found = Narrow(ob::NameOf(body)) + "|" + Narrow(rest);
        ObDereferenceObject(body);
        return found;
    }
};

} // namespace

TEST_F(NameTest, WalksThroughDirectoriesAndLinks)
{
    const Leaf volume(L"\\Device\\Volume");
    const struct {
        const wchar_t* Link;
        const wchar_t* Target;
    } links[] = {
        {L"\\??\\V", L"\\Device\\Volume"},      {L"\\DosDevices\\Deep", L"\\Device\\Volume\\a\\b"},
        {L"\\??\\Chain", L"\\GLOBAL??\\V"},     {L"\\Dev", L"\\Device"},
        {L"\\??\\Loop1", L"\\??\\Loop2"},       {L"\\??\\Loop2", L"\\??\\Loop1"},
        {L"\\??\\Grows", L"\\??\\Grows\\x"},    {L"\\??\\Dangling", L"\\Device\\None"},
        {L"\\??\\Relative", L"Device\\Volume"},
    };
    for (const auto& link : links)
        ASSERT_EQ(ob::CreateSymbolicLink(Name(link.Link), Name(link.Target)), STATUS_SUCCESS);

    const struct {
        const wchar_t* Path;
        const char* Found;
    } rows[] = {
        {L"\\Device\\Volume", "\\Device\\Volume|"},
        {L"\\device\\VOLUME\\dir\\File", "\\Device\\Volume|\\dir\\File"},
        {L"\\Device\\Volume\\", "\\Device\\Volume|\\"},       // the root of the volume
        {L"\\Device\\Volume\\\\x", "\\Device\\Volume|\\\\x"}, // beyond the object, syntax is the object's
        {L"\\??\\V\\x", "\\Device\\Volume|\\x"},
        {L"\\GLOBAL??\\V", "\\Device\\Volume|"},
        {L"\\DosDevices\\v", "\\Device\\Volume|"},
        {L"\\??\\Deep\\c", "\\Device\\Volume|\\a\\b\\c"},
        {L"\\??\\Chain\\c", "\\Device\\Volume|\\c"},
        {L"\\Dev\\Volume\\c", "\\Device\\Volume|\\c"},
        {L"\\", "|"},
        {L"\\Device", "\\Device|"},
        {L"\\Device\\None", "STATUS_OBJECT_NAME_NOT_FOUND"},
        {L"\\Device\\None\\x", "STATUS_OBJECT_PATH_NOT_FOUND"},
        {L"\\??\\Dangling", "STATUS_OBJECT_NAME_NOT_FOUND"},
        {L"\\??\\Dangling\\x", "STATUS_OBJECT_PATH_NOT_FOUND"},
        {L"\\Device\\", "STATUS_OBJECT_NAME_INVALID"},
        {L"\\\\Device", "STATUS_OBJECT_NAME_INVALID"},
        {L"", "STATUS_OBJECT_PATH_SYNTAX_BAD"},
        {L"Device\\Volume", "STATUS_OBJECT_PATH_SYNTAX_BAD"},
        {L"\\??\\Relative", "STATUS_OBJECT_PATH_SYNTAX_BAD"},
        {L"\\??\\Loop1", "STATUS_OBJECT_NAME_INVALID"},
        {L"\\??\\Grows", "STATUS_OBJECT_NAME_INVALID"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Lookup(row.Path), row.Found)
            << Narrow(std::u16string_view(reinterpret_cast<const char16_t*>(row.Path)));
    for (const auto& link : links) EXPECT_EQ(ob::DeleteSymbolicLink(Name(link.Link)), STATUS_SUCCESS);
}

TEST_F(NameTest, AddingAndTakingBack)
{
    const Leaf taken(L"\\Device\\Taken");
    void* const body = ob::CreateObject(&g_leafType, 16);
    const struct {
        const wchar_t* Path;
        NTSTATUS Status;
    } rows[] = {
        {L"\\Device\\TAKEN", STATUS_OBJECT_NAME_COLLISION},
        {L"\\None\\x", STATUS_OBJECT_PATH_NOT_FOUND},
        {L"\\Device\\Taken\\x", STATUS_OBJECT_PATH_NOT_FOUND}, // not a directory
        {L"Device", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {L"", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {L"\\Device\\", STATUS_OBJECT_NAME_INVALID},
        {L"\\Device\\New", STATUS_SUCCESS},
        {L"\\Device\\Second", STATUS_INVALID_PARAMETER}, // an object has one name
    };
    for (const auto& row : rows) EXPECT_EQ(ob::InsertName(Name(row.Path), body), row.Status) << row.Status;
    EXPECT_EQ(ob::PointerCount(body), 2);
    EXPECT_EQ(ob::DeleteSymbolicLink(Name(L"\\Device\\New")), STATUS_OBJECT_TYPE_MISMATCH);
    EXPECT_EQ(ob::DeleteSymbolicLink(Name(L"\\Device\\Missing")), STATUS_OBJECT_NAME_NOT_FOUND);

    ob::RemoveName(body);
    ob::RemoveName(body);
    EXPECT_EQ(ob::PointerCount(body), 1);
    EXPECT_TRUE(ob::NameOf(body).empty());
    EXPECT_EQ(Lookup(L"\\Device\\New"), "STATUS_OBJECT_NAME_NOT_FOUND");
    ObDereferenceObject(body);
}

TEST_F(NameTest, LinkedPathsDoNotOutgrowACountedString)
{
    const std::u16string half = u"\\??\\Long\\" + std::u16string(20000, u'y');
    UNICODE_STRING target{static_cast<USHORT>(half.size() * 2), static_cast<USHORT>(half.size() * 2),
                          reinterpret_cast<WCHAR*>(const_cast<char16_t*>(half.data()))};
    ASSERT_EQ(ob::CreateSymbolicLink(Name(L"\\??\\Long"), &target), STATUS_SUCCESS);
    EXPECT_EQ(Lookup(L"\\??\\Long"), "STATUS_NAME_TOO_LONG");
    EXPECT_EQ(ob::DeleteSymbolicLink(Name(L"\\??\\Long")), STATUS_SUCCESS);
}

// Lookups of a name that comes and goes find it or do not, and never find a dead object.
TEST_F(NameTest, LookupWhileNamesChange)
{
    std::atomic<bool> done{false};
    std::thread reader = StartThread(HostProcess(), [&done] {
        while (!done) Lookup(L"\\??\\Link\\x");
    });
    for (int i = 0; i < 500; ++i) {
        const Leaf leaf(L"\\Device\\Leaf");
        EXPECT_EQ(ob::CreateSymbolicLink(Name(L"\\??\\Link"), Name(L"\\Device\\Leaf")), STATUS_SUCCESS);
        EXPECT_EQ(ob::DeleteSymbolicLink(Name(L"\\??\\Link")), STATUS_SUCCESS);
    }
    done = true;
    reader.join();
}

} // namespace nthost_ob
