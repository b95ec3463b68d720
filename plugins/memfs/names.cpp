// Names: which are legal, how two of them compare, and what composes. Pure functions of their arguments. Two spellings
// are the same name if they agree after combining marks have been joined to their letters and case has been folded.

#include "names.h"

namespace memfs {
namespace {

// For each combining mark the letters that it joins, each followed by the result: all of Latin-1 and Latin Extended-A.
struct Mark {
    WCHAR Character;
    const WCHAR* Pairs;
};

constexpr Mark kMarks[] = {
    {0x0300, L"AÀEÈIÌOÒUÙaàeèiìoòuù"},
    {0x0301, L"AÁCĆEÉIÍLĹNŃOÓRŔSŚUÚYÝZŹaácćeéiílĺnńoórŕsśuúyýzź"},
    {0x0302, L"AÂCĈEÊGĜHĤIÎJĴOÔSŜUÛWŴYŶaâcĉeêgĝhĥiîjĵoôsŝuûwŵyŷ"},
    {0x0303, L"AÃIĨNÑOÕUŨaãiĩnñoõuũ"},
    {0x0304, L"AĀEĒIĪOŌUŪaāeēiīoōuū"},
    {0x0306, L"AĂEĔGĞIĬOŎUŬaăeĕgğiĭoŏuŭ"},
    {0x0307, L"CĊEĖGĠIİZŻcċeėgġzż"},
    {0x0308, L"AÄEËIÏOÖUÜYŸaäeëiïoöuüyÿ"},
    {0x030a, L"AÅUŮaåuů"},
    {0x030b, L"OŐUŰoőuű"},
    {0x030c, L"CČDĎEĚLĽNŇRŘSŠTŤZŽcčdďeělľnňrřsštťzž"},
    {0x0327, L"CÇGĢKĶLĻNŅRŖSŞTŢcçgģkķlļnņrŗsştţ"},
    {0x0328, L"AĄEĘIĮUŲaąeęiįuų"},
};

constexpr bool IsInMarkRange(WCHAR character) { return character >= 0x0300 && character <= 0x0328; }

// 0 if the two do not compose.
WCHAR Compose(WCHAR letter, WCHAR mark)
{
    for (const Mark& row : kMarks) {
        if (row.Character != mark) continue;
        for (const WCHAR* pair = row.Pairs; *pair; pair += 2) {
            if (pair[0] == letter) return pair[1];
        }
    }
    return 0;
}

// Goes through a name by composed characters.
class Reader {
public:
    explicit Reader(const UNICODE_STRING& name) : at_(name.Buffer), end_(at_ + name.Length / sizeof(WCHAR)) {}
    bool AtEnd() const { return at_ == end_; }
    WCHAR Next()
    {
        const WCHAR letter = *at_++;
        if (AtEnd() || !IsInMarkRange(*at_)) return letter;
        const WCHAR composed = Compose(letter, *at_);
        if (!composed) return letter;
        ++at_; // no result of the table takes a further mark of the table
        return composed;
    }

private:
    const WCHAR* at_;
    const WCHAR* end_;
};

WCHAR Upcase(WCHAR character)
{
    if (character >= 0x80) return RtlUpcaseUnicodeChar(character);
    return character >= 'a' && character <= 'z' ? static_cast<WCHAR>(character - ('a' - 'A')) : character;
}

USHORT ComposedLength(const UNICODE_STRING& name)
{
    USHORT length = 0;
    for (Reader reader(name); !reader.AtEnd(); reader.Next()) length += sizeof(WCHAR);
    return length;
}

bool IsLegalCharacter(WCHAR character)
{
    if (character < 0x20) return false;
    for (const char* illegal = "\"*/:<>?\\|"; *illegal; ++illegal) {
        if (character == static_cast<WCHAR>(*illegal)) return false;
    }
    return true;
}

bool IsDots(const UNICODE_STRING& name)
{
    const ULONG characters = name.Length / sizeof(WCHAR);
    if (characters > 2) return false;
    for (ULONG i = 0; i < characters; ++i) {
        if (name.Buffer[i] != '.') return false;
    }
    return true;
}

} // namespace

LONG CompareNames(const UNICODE_STRING& left, const UNICODE_STRING& right)
{
    Reader a(left), b(right);
    while (!a.AtEnd() && !b.AtEnd()) {
        const LONG difference = static_cast<LONG>(Upcase(a.Next())) - static_cast<LONG>(Upcase(b.Next()));
        if (difference != 0) return difference;
    }
    return static_cast<LONG>(b.AtEnd()) - static_cast<LONG>(a.AtEnd());
}

bool IsLegalName(const UNICODE_STRING& name)
{
    const ULONG characters = name.Length / sizeof(WCHAR);
    if (characters == 0 || characters > kMaxNameCharacters || IsDots(name)) return false;
    for (ULONG i = 0; i < characters; ++i) {
        if (!IsLegalCharacter(name.Buffer[i])) return false;
    }
    return true;
}

NTSTATUS CopyName(const UNICODE_STRING& from, UNICODE_STRING* to)
{
    WCHAR* const text = Allocate<WCHAR>(PagedPool, from.Length);
    if (!text) return STATUS_INSUFFICIENT_RESOURCES;
    RtlCopyMemory(text, from.Buffer, from.Length);
    *to = {from.Length, from.Length, text};
    return STATUS_SUCCESS;
}

UNICODE_STRING* AllocateString(USHORT bytes)
{
    UNICODE_STRING* const string = Allocate<UNICODE_STRING>(PagedPool, sizeof(UNICODE_STRING) + bytes);
    if (string) *string = {bytes, bytes, reinterpret_cast<WCHAR*>(string + 1)};
    return string;
}

NTSTATUS ComposeString(const UNICODE_STRING& from, UNICODE_STRING** composed)
{
    const USHORT length = ComposedLength(from);
    if (length / sizeof(WCHAR) == from.Length / sizeof(WCHAR)) return STATUS_NOT_SUPPORTED;
    UNICODE_STRING* const string = AllocateString(length);
    if (!string) return STATUS_INSUFFICIENT_RESOURCES;
    WCHAR* at = string->Buffer;
    for (Reader reader(from); !reader.AtEnd();) *at++ = reader.Next();
    *composed = string;
    return STATUS_SUCCESS;
}

} // namespace memfs
