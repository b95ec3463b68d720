// Names taken apart, compared, and the characters they may have. Pure functions of their arguments.

#include <array>
#include <string_view>

#include "rtl/casing.h"

namespace {

using LegalTable = std::array<UCHAR, 128>;

constexpr UCHAR kEverywhere = FSRTL_FAT_LEGAL | FSRTL_HPFS_LEGAL | FSRTL_NTFS_LEGAL | FSRTL_OLE_LEGAL;

constexpr void SetLegal(LegalTable& table, std::string_view characters, UCHAR bits)
{
    for (char c : characters) table[static_cast<UCHAR>(c)] = bits;
}

constexpr LegalTable BuildLegalTable()
{
    LegalTable table{};
    table.fill(kEverywhere);
    for (UCHAR control = 1; control < ' '; ++control) table[control] = FSRTL_OLE_LEGAL;
    SetLegal(table, "+,;=[]", kEverywhere & ~FSRTL_FAT_LEGAL);
    SetLegal(table, "*?<>\"", FSRTL_WILD_CHARACTER | FSRTL_OLE_LEGAL);
    SetLegal(table, "|", FSRTL_OLE_LEGAL);
    SetLegal(table, "!.", kEverywhere & ~FSRTL_OLE_LEGAL);
    SetLegal(table, ":", FSRTL_NTFS_LEGAL); // between a file's name and a stream's
    SetLegal(table, std::string_view("\0/\\", 3), 0);
    return table;
}

constexpr LegalTable kLegal = BuildLegalTable();

UNICODE_STRING Part(PWCH first, PWCH end)
{
    const auto bytes = static_cast<USHORT>((end - first) * sizeof(WCHAR));
    return {bytes, bytes, first};
}

} // namespace

const UCHAR* const FsRtlLegalAnsiCharacterArray = kLegal.data();

VOID NTAPI FsRtlDissectName(UNICODE_STRING Name, PUNICODE_STRING FirstPart, PUNICODE_STRING RemainingPart)
{
    *FirstPart = *RemainingPart = {};
    PWCH at = Name.Buffer;
    const PWCH end = at + Name.Length / sizeof(WCHAR);
    if (at == end) return;
    if (*at == L'\\') ++at;
    const PWCH first = at;
    while (at < end && *at != L'\\') ++at;
    *FirstPart = Part(first, at);
    if (at < end) *RemainingPart = Part(at + 1, end);
}

BOOLEAN NTAPI FsRtlDoesNameContainWildCards(PUNICODE_STRING Name)
{
    const PWCH end = Name->Buffer + Name->Length / sizeof(WCHAR);
    for (PWCH at = Name->Buffer; at < end; ++at)
        if (FsRtlIsUnicodeCharacterWild(*at)) return TRUE;
    return FALSE;
}

BOOLEAN NTAPI FsRtlAreNamesEqual(PCUNICODE_STRING Name1, PCUNICODE_STRING Name2, BOOLEAN IgnoreCase, PCWCH UpcaseTable)
{
    if (Name1->Length != Name2->Length) return FALSE;
    if (!IgnoreCase || !UpcaseTable) return RtlEqualUnicodeString(Name1, Name2, IgnoreCase);
    for (size_t i = 0; i < Name1->Length / sizeof(WCHAR); ++i)
        if (UpcaseTable[Name1->Buffer[i]] != UpcaseTable[Name2->Buffer[i]]) return FALSE;
    return TRUE;
}
