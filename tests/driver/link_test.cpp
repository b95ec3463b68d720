// Links: where they lead, which opens follow them, and targets that lead nowhere.

#include "open_volume.h"

#include "support/file.h"

namespace opening {
namespace {

class Links : public VolumeTest {
protected:
    std::string Content(const std::string& path)
    {
        const OpenResult opened = Open(path);
        EXPECT_STATUS(STATUS_SUCCESS, opened.Status);
        return NT_SUCCESS(opened.Status) ? support::ReadText(opened.File.Get(), 100) : std::string();
    }
};

TEST_F(Links, LeadOnFromTheMiddleAndTheEnd)
{
    MakeLink("\\todir", "\\dir");
    MakeLink("\\slash", "\\dir\\");
    MakeLink("\\dir\\up", "\\todir");
    EXPECT_EQ(Content("\\link"), "0123456789");
    EXPECT_EQ(Content("\\todir\\file"), "in a directory");
    EXPECT_EQ(Content("\\slash\\file"), "in a directory");
    EXPECT_EQ(Content("\\dir\\up\\up\\up\\sub\\deep"), "deep"); // a chain
    EXPECT_EQ(FcbCount(), 0u);

    Handle directory = OpenOrFail("\\todir");
    EXPECT_EQ(support::NameOf(directory.Get()), "\\dir");
    TakeCalls();
    Handle relative = OpenOrFail("up\\file", {.Root = directory.Get()});
    EXPECT_EQ(support::ReadText(relative.Get(), 5), "in a ");

    // In the middle it is followed whatever the open asks; the end decides.
    const OpenRequest create = {.Access = FILE_GENERIC_WRITE | DELETE, .Disposition = FILE_CREATE};
    EXPECT_STATUS(STATUS_OBJECT_NAME_COLLISION, Open("\\todir\\file", create).Status);
    EXPECT_STATUS(STATUS_SUCCESS, Open("\\todir\\new", create).Status);
    EXPECT_STATUS(STATUS_SUCCESS, Open("\\dir\\new").Status);
}

// Who may follow one at the end of a path is the model's; nobody else has the plugin read it.
TEST_F(Links, AreReadForWhomTheyAreFollowed)
{
    Plugin().Clear();
    EXPECT_STATUS(STATUS_ACCESS_DENIED, Open("\\link", {.Disposition = FILE_OPEN_IF}).Status);
    EXPECT_EQ(Plugin().Count("ReadLink"), 0u);
    Handle same = OpenOrFail("\\link", {.Options = kSynchronous | FILE_OPEN_REPARSE_POINT}); // makes no difference
    EXPECT_EQ(Plugin().Count("ReadLink"), 1u);
}

TEST_F(Links, ToNowhereFailClearly)
{
    MakeLink("\\loop", "\\loop");
    MakeLink("\\dangling", "\\none\\at all");
    EXPECT_STATUS(STATUS_OBJECT_NAME_INVALID, Open("\\loop").Status); // bounded
    EXPECT_STATUS(STATUS_OBJECT_PATH_NOT_FOUND, Open("\\dangling").Status);
    Plugin().Fail("ReadLink", STATUS_DISK_CORRUPT_ERROR);
    EXPECT_STATUS(STATUS_DISK_CORRUPT_ERROR, Open("\\link").Status);
    EXPECT_EQ(FcbCount(), 0u);
}

struct BadTarget {
    static inline const WCHAR* Text;
    static inline USHORT Missing; // bytes
    static NTSTATUS NTAPI ReadLink(void*, PKEVENT, PCUNICODE_STRING, PUNICODE_STRING* target, PUNICODE_STRING* other)
    {
        *other = static_cast<PUNICODE_STRING>(ExAllocatePoolWithTag(PagedPool, sizeof(UNICODE_STRING), 'tset'));
        if (!Text) return STATUS_SUCCESS;
        *target = static_cast<PUNICODE_STRING>(ExAllocatePoolWithTag(PagedPool, sizeof(UNICODE_STRING), 'tset'));
        RtlInitUnicodeString(*target, Text);
        (*target)->Length -= Missing;
        return STATUS_SUCCESS;
    }
};

TEST_F(Links, MustPointToAPathFromTheRoot)
{
    Plugin().Table()->ReadLink = BadTarget::ReadLink;
    for (const WCHAR* text : {static_cast<const WCHAR*>(nullptr), L"", L"relative", L"..\\up"}) {
        BadTarget::Text = text;
        EXPECT_STATUS(STATUS_OBJECT_PATH_SYNTAX_BAD, Open("\\link").Status);
    }
    BadTarget::Text = L"\\file";
    BadTarget::Missing = 1; // half a character
    EXPECT_STATUS(STATUS_UNSUCCESSFUL, Open("\\link").Status);
    BadTarget::Missing = 0;
    Plugin().Table()->ReadLink = nullptr;
    EXPECT_STATUS(STATUS_NOT_SUPPORTED, Open("\\link").Status);
}

} // namespace
} // namespace opening
