// The vocabulary of SDDL text. Constant tables.

#include "se/sddl_words.h"

#include "rtl/casing.h"

namespace nthost::se {

namespace {

struct SidName {
    Text Name;
    PSID SE_EXPORTS::*Sid;
};

constexpr SidName kSids[] = {
    {u"WD", &SE_EXPORTS::SeWorldSid},           {u"CO", &SE_EXPORTS::SeCreatorOwnerSid},
    {u"CG", &SE_EXPORTS::SeCreatorGroupSid},    {u"OW", &SE_EXPORTS::SeOwnerRightsSid},
    {u"NU", &SE_EXPORTS::SeNetworkSid},         {u"IU", &SE_EXPORTS::SeInteractiveSid},
    {u"AN", &SE_EXPORTS::SeAnonymousLogonSid},  {u"AU", &SE_EXPORTS::SeAuthenticatedUsersSid},
    {u"RC", &SE_EXPORTS::SeRestrictedSid},      {u"SY", &SE_EXPORTS::SeLocalSystemSid},
    {u"LS", &SE_EXPORTS::SeLocalServiceSid},    {u"NS", &SE_EXPORTS::SeNetworkServiceSid},
    {u"BA", &SE_EXPORTS::SeAliasAdminsSid},     {u"BU", &SE_EXPORTS::SeAliasUsersSid},
    {u"BG", &SE_EXPORTS::SeAliasGuestsSid},     {u"PU", &SE_EXPORTS::SeAliasPowerUsersSid},
    {u"AO", &SE_EXPORTS::SeAliasAccountOpsSid}, {u"SO", &SE_EXPORTS::SeAliasSystemOpsSid},
    {u"PO", &SE_EXPORTS::SeAliasPrintOpsSid},   {u"BO", &SE_EXPORTS::SeAliasBackupOpsSid},
    {u"AC", &SE_EXPORTS::SeAllAppPackagesSid},  {u"UD", &SE_EXPORTS::SeUserModeDriversSid},
    {u"LW", &SE_EXPORTS::SeLowMandatorySid},    {u"ME", &SE_EXPORTS::SeMediumMandatorySid},
    {u"HI", &SE_EXPORTS::SeHighMandatorySid},   {u"SI", &SE_EXPORTS::SeSystemMandatorySid},
};

struct BitName {
    Text Name;
    ULONG Bits;
};

constexpr BitName kRights[] = {
    {u"GA", GENERIC_ALL},
    {u"GR", GENERIC_READ},
    {u"GW", GENERIC_WRITE},
    {u"GX", GENERIC_EXECUTE},
    {u"RC", READ_CONTROL},
    {u"SD", DELETE},
    {u"WD", WRITE_DAC},
    {u"WO", WRITE_OWNER},
    {u"FA", FILE_ALL_ACCESS},
    {u"FR", FILE_GENERIC_READ},
    {u"FW", FILE_GENERIC_WRITE},
    {u"FX", FILE_GENERIC_EXECUTE},
    // The bits of directory objects, by which the lowest nine go.
    {u"CC", 0x001},
    {u"DC", 0x002},
    {u"LC", 0x004},
    {u"SW", 0x008},
    {u"RP", 0x010},
    {u"WP", 0x020},
    {u"DT", 0x040},
    {u"LO", 0x080},
    {u"CR", 0x100},
};

constexpr BitName kAceFlags[] = {
    {u"CI", CONTAINER_INHERIT_ACE},  {u"OI", OBJECT_INHERIT_ACE}, {u"NP", NO_PROPAGATE_INHERIT_ACE},
    {u"IO", INHERIT_ONLY_ACE},       {u"ID", INHERITED_ACE},      {u"SA", SUCCESSFUL_ACCESS_ACE_FLAG},
    {u"FA", FAILED_ACCESS_ACE_FLAG},
};

// Names from the table until the semicolon, ORed.
template <size_t N>
std::optional<ULONG> TakeBits(Text* text, const BitName (&table)[N])
{
    ULONG bits = 0;
    for (SkipBlanks(text); !text->empty() && text->front() != u';'; SkipBlanks(text)) {
        const BitName* name = table;
        while (name != table + N && !TakeWord(text, name->Name)) ++name;
        if (name == table + N) return {};
        bits |= name->Bits;
    }
    return bits;
}

unsigned DigitOf(char16_t c)
{
    const WCHAR upcased = rtl::Upcase(static_cast<WCHAR>(c));
    if (upcased >= L'0' && upcased <= L'9') return static_cast<unsigned>(upcased - L'0');
    return upcased >= L'A' && upcased <= L'F' ? static_cast<unsigned>(upcased - L'A' + 10) : 16;
}

unsigned TakeBase(Text* text)
{
    if (TakeWord(text, u"0x")) return 16;
    return text->front() == u'0' ? 8 : 10;
}

std::optional<ULONG> TakeNumber(Text* text)
{
    const unsigned base = TakeBase(text);
    if (text->empty() || DigitOf(text->front()) >= base) return {};
    uint64_t value = 0;
    while (!text->empty() && DigitOf(text->front()) < base) {
        value = value * base + DigitOf(text->front());
        if (value > MAXULONG) return {};
        text->remove_prefix(1);
    }
    return static_cast<ULONG>(value);
}

} // namespace

void SkipBlanks(Text* text)
{
    while (!text->empty() && text->front() == u' ') text->remove_prefix(1);
}

bool TakeWord(Text* text, Text word)
{
    SkipBlanks(text);
    if (text->size() < word.size()) return false;
    for (size_t i = 0; i < word.size(); ++i)
        if (rtl::Upcase(static_cast<WCHAR>((*text)[i])) != rtl::Upcase(static_cast<WCHAR>(word[i]))) return false;
    text->remove_prefix(word.size());
    return true;
}

std::optional<Sid> TakeSid(Text* text)
{
    SkipBlanks(text);
    size_t used = 0;
    if (std::optional<Sid> sid = ParseSid(*text, &used)) {
        text->remove_prefix(used);
        return sid;
    }
    for (const SidName& name : kSids)
        if (TakeWord(text, name.Name)) return SidOf(SeExports->*name.Sid);
    return {};
}

std::optional<ACCESS_MASK> TakeRights(Text* text)
{
    SkipBlanks(text);
    if (!text->empty() && DigitOf(text->front()) < 10) return TakeNumber(text);
    return TakeBits(text, kRights);
}

std::optional<UCHAR> TakeAceFlags(Text* text)
{
    const std::optional<ULONG> bits = TakeBits(text, kAceFlags);
    return bits ? std::optional(static_cast<UCHAR>(*bits)) : std::nullopt;
}

ListFlags TakeListFlags(Text* text)
{
    ListFlags flags;
    for (;;) {
        if (TakeWord(text, u"NO_ACCESS_CONTROL"))
            flags.IsNull = true;
        else if (TakeWord(text, u"AR"))
            flags.RequestsInheritance = true;
        else if (TakeWord(text, u"AI"))
            flags.IsInherited = true;
        else if (TakeWord(text, u"P"))
            flags.IsProtected = true;
        else
            return flags;
    }
}

} // namespace nthost::se
