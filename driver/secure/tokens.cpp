// The words of an access-control entry: rights, by name or number, and SIDs by their two-letter names. Works on its
// arguments and on constant tables, and on the kernel's table of SIDs.

#include "secure/parse.h"

namespace {

struct RightsToken {
    WCHAR Name[3];
    ACCESS_MASK Rights;
};

constexpr RightsToken kRightsTokens[] = {
    {L"RC", READ_CONTROL}, {L"WD", WRITE_DAC},    {L"WO", WRITE_OWNER},   {L"SD", DELETE},
    {L"GA", GENERIC_ALL},  {L"GR", GENERIC_READ}, {L"GW", GENERIC_WRITE}, {L"GX", GENERIC_EXECUTE},
};

enum class Since { Always, NewerKernels };

struct SidToken {
    WCHAR Name[3];
    ULONG Offset; // of the SID in the kernel's table
    Since Known;
};

// Behind the last member that every header set knows.
constexpr ULONG kAllAppPackages = FIELD_OFFSET(SE_EXPORTS, SeOwnerRightsSid) + sizeof(PSID);
constexpr ULONG kUserModeDrivers = kAllAppPackages + sizeof(PSID);

#define KNOWN_SID(member) FIELD_OFFSET(SE_EXPORTS, member)
constexpr SidToken kSidTokens[] = {
    {L"WD", KNOWN_SID(SeWorldSid), Since::Always},
    {L"BA", KNOWN_SID(SeAliasAdminsSid), Since::Always},
    {L"SY", KNOWN_SID(SeLocalSystemSid), Since::Always},
    {L"IU", KNOWN_SID(SeInteractiveSid), Since::Always},
    {L"RC", KNOWN_SID(SeRestrictedSid), Since::Always},
    {L"AU", KNOWN_SID(SeAuthenticatedUsersSid), Since::Always},
    {L"NU", KNOWN_SID(SeNetworkSid), Since::Always},
    {L"AN", KNOWN_SID(SeAnonymousLogonSid), Since::Always},
    {L"BG", KNOWN_SID(SeAliasGuestsSid), Since::Always},
    {L"BU", KNOWN_SID(SeAliasUsersSid), Since::Always},
    {L"LS", KNOWN_SID(SeLocalServiceSid), Since::NewerKernels},
    {L"NS", KNOWN_SID(SeNetworkServiceSid), Since::NewerKernels},
    {L"AC", kAllAppPackages, Since::NewerKernels},
    {L"UD", kUserModeDrivers, Since::NewerKernels},
};
#undef KNOWN_SID

WCHAR Upcase(WCHAR character)
{
    return character >= L'a' && character <= L'z' ? static_cast<WCHAR>(character - (L'a' - L'A')) : character;
}

bool StartsWith(const WCHAR* text, const WCHAR (&name)[3])
{
    return Upcase(text[0]) == name[0] && Upcase(text[1]) == name[1];
}

bool IsKnownHere(const SidToken& token) { return token.Known == Since::Always || IoIsWdmVersionAvailable(1, 0x20); }

PSID SidAt(ULONG offset)
{
    const auto* const table = reinterpret_cast<const UCHAR*>(SeExports);
    return *reinterpret_cast<const PSID*>(table + offset);
}

// 16 and more for what is no digit.
ULONG DigitOf(WCHAR character)
{
    const WCHAR upcased = Upcase(character);
    if (upcased >= L'0' && upcased <= L'9') return upcased - L'0';
    return upcased >= L'A' && upcased <= L'F' ? upcased - L'A' + 10 : 16;
}

// Takes the prefix, if there is one.
ULONG BaseOf(const WCHAR** text)
{
    const WCHAR* const at = *text;
    if (at[0] == L'0' && Upcase(at[1]) == L'X') {
        *text += 2;
        return 16;
    }
    return DigitOf(at[0]) < 10 ? 10 : 16;
}

} // namespace

bool SecLookupRightsToken(const WCHAR* text, ACCESS_MASK* rights, const WCHAR** end)
{
    for (const RightsToken& token : kRightsTokens) {
        if (!StartsWith(text, token.Name)) continue;
        *rights = token.Rights;
        *end = text + 2;
        return true;
    }
    return false;
}

NTSTATUS SecLookupSidToken(const WCHAR* text, PSID* sid, const WCHAR** end)
{
    for (const SidToken& token : kSidTokens) {
        if (!StartsWith(text, token.Name)) continue;
        *sid = IsKnownHere(token) ? SidAt(token.Offset) : nullptr;
        *end = text + 2;
        return STATUS_SUCCESS;
    }
    return STATUS_NONE_MAPPED;
}

bool SecParseRightsNumber(const WCHAR* text, const WCHAR** end, ACCESS_MASK* rights)
{
    const ULONG base = BaseOf(&text);
    const WCHAR* const first = text;
    ULONGLONG value = 0;
    for (ULONG digit; (digit = DigitOf(*text)) < base; ++text) {
        value = value * base + digit;
        if (value > MAXULONG) return false;
    }
    if (text == first) return false;
    *rights = static_cast<ACCESS_MASK>(value);
    *end = text;
    return true;
}
