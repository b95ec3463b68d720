// The DACL of an SDDL text: entries in parentheses, five semicolons each. The number of entries is known from the
// semicolons before the first is read, so the ACL is allocated once, unless SIDs are longer than expected.

#include "frame/trace.h"
#include "secure/parse.h"

namespace {

constexpr ULONG kSemicolonsPerEntry = 5;
constexpr ULONG kExpectedEntrySize = 48; // longer than one with any SID that has a token
constexpr ULONG kEntryHeaderSize = FIELD_OFFSET(ACCESS_ALLOWED_ACE, SidStart);

// Where the DACL text ends: at the letter in front of the next colon, or at the terminator. Null for a text that
// begins with the colon.
const WCHAR* EndOfDacl(const WCHAR* text)
{
    const WCHAR* at = text;
    while (*at && *at != L':') ++at;
    if (!*at) return at;
    return at == text ? nullptr : at - 1;
}

[[nodiscard]] NTSTATUS CountEntries(const WCHAR* text, const WCHAR* end, ULONG* entries)
{
    ULONG semicolons = 0;
    bool isBlank = true;
    for (; text < end; ++text) {
        if (*text == L';') ++semicolons;
        if (*text != L' ') isBlank = false;
    }
    if (semicolons % kSemicolonsPerEntry || (!semicolons && !isBlank)) return STATUS_INVALID_PARAMETER;
    *entries = semicolons / kSemicolonsPerEntry;
    return STATUS_SUCCESS;
}

ULONG AtMostAclSize(ULONGLONG size) { return size < SecMaximumAclSize ? static_cast<ULONG>(size) : SecMaximumAclSize; }

[[nodiscard]] NTSTATUS NewAcl(ULONG size, GvBlock<ACL>* acl)
{
    GvBlock<ACL> block(static_cast<PACL>(GvAllocate(PagedPool, size, SecAclTag)));
    if (!block) return GV_REFUSE_AS("SecParseDacl", STATUS_INSUFFICIENT_RESOURCES, "out-of-mem\n");
    block->AclRevision = ACL_REVISION;
    block->AclSize = static_cast<USHORT>(size);
    *acl = static_cast<GvBlock<ACL>&&>(block);
    return STATUS_SUCCESS;
}

bool Take(WCHAR wanted, const WCHAR** text)
{
    const WCHAR* const at = SecSkipBlanks(*text);
    if (*at != wanted) return false;
    *text = at + 1;
    return true;
}

// Allow entries are all there is, and their field of flags is empty.
[[nodiscard]] NTSTATUS ParseTypeAndFlags(const WCHAR** text)
{
    if (!Take(L'A', text) && !Take(L'a', text)) return STATUS_INVALID_PARAMETER;
    *text = SecSkipBlanks(*text);
    if (**text) ++*text; // the separator, whatever it is
    return Take(L';', text) ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

// The field, with the semicolon that ends it.
[[nodiscard]] NTSTATUS ParseRights(const WCHAR** text, ACCESS_MASK* rights)
{
    *rights = 0;
    while (!Take(L';', text)) {
        const WCHAR* const at = SecSkipBlanks(*text);
        ACCESS_MASK more = 0;
        if (!SecLookupRightsToken(at, &more, text) && !SecParseRightsNumber(at, text, &more)) {
            return STATUS_INVALID_PARAMETER;
        }
        *rights |= more;
    }
    return STATUS_SUCCESS;
}

struct Entry {
    ACCESS_MASK Rights;
    PSID Sid;
};

[[nodiscard]] NTSTATUS ParseEntry(const WCHAR** text, Entry* entry)
{
    Take(L'(', text); // may be missing
    NTSTATUS status = ParseTypeAndFlags(text);
    if (NT_SUCCESS(status)) status = ParseRights(text, &entry->Rights);
    if (!NT_SUCCESS(status)) return status;
    if (!Take(L';', text) || !Take(L';', text)) return STATUS_INVALID_PARAMETER; // no object types
    GV_TRY(SecLookupSidToken(SecSkipBlanks(*text), &entry->Sid, text));
    return Take(L')', text) ? STATUS_SUCCESS : STATUS_INVALID_ACL;
}

[[nodiscard]] NTSTATUS ParseEntries(const WCHAR* text, ULONG count, GvBlock<ACL>* acl, ULONG* used)
{
    for (; count; --count) {
        Entry entry = {};
        NTSTATUS status = ParseEntry(&text, &entry);
        if (NT_SUCCESS(status) && entry.Sid) status = SecAddAllowedAce(acl, used, entry.Rights, count, entry.Sid);
        if (!NT_SUCCESS(status)) return status;
    }
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS SecParseDacl(const WCHAR* text, GvBlock<ACL>* acl, const WCHAR** end)
{
    acl->Reset();
    *end = EndOfDacl(text);
    if (!*end) return STATUS_INVALID_PARAMETER;
    ULONG entries = 0;
    GV_TRY(CountEntries(text, *end, &entries));

    GvBlock<ACL> list;
    ULONG used = sizeof(ACL);
    NTSTATUS status = NewAcl(AtMostAclSize(ULONGLONG{entries} * kExpectedEntrySize + sizeof(ACL)), &list);
    if (NT_SUCCESS(status)) status = ParseEntries(text, entries, &list, &used);
    if (!NT_SUCCESS(status)) return status;
    list->AclSize = static_cast<USHORT>(used);
    *acl = static_cast<GvBlock<ACL>&&>(list);
    return STATUS_SUCCESS;
}

NTSTATUS SecAddAllowedAce(GvBlock<ACL>* acl, ULONG* used, ACCESS_MASK rights, ULONG entriesToCome, PSID sid)
{
    const ULONG size = kEntryHeaderSize + RtlLengthSid(sid);
    if (*used + size > (*acl)->AclSize) {
        GvBlock<ACL> larger;
        const ULONG newSize = AtMostAclSize(ULONGLONG{size} * entriesToCome + *used);
        GV_TRY(NewAcl(newSize, &larger));
        RtlCopyMemory(larger.Get(), acl->Get(), *used);
        larger->AclSize = static_cast<USHORT>(newSize);
        *acl = static_cast<GvBlock<ACL>&&>(larger);
    }
    // A list of more than its 16-bit size can tell is refused here.
    const NTSTATUS status = RtlAddAccessAllowedAce(acl->Get(), ACL_REVISION, rights, sid);
    if (NT_SUCCESS(status)) *used += size;
    return status;
}
