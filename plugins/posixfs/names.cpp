// The name mapping of names.h, case folding, and splitting of paths. Pure functions, no state.
#include "names.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace posixfs {
namespace {

constexpr char16_t kEscapeBase = 0xf000;

bool IsAscii(std::string_view bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](char byte) { return static_cast<unsigned char>(byte) < 0x80; });
}

bool IsForbiddenInNt(unsigned char byte)
{
    return (byte >= 1 && byte < 0x20) || (byte < 0x80 && byte != 0 && std::strchr("\"*:<>?\\|", byte) != nullptr);
}

bool IsEscape(char32_t character)
{
    if ((character & ~0xffu) != kEscapeBase) return false;
    const auto byte = static_cast<unsigned char>(character & 0xff);
    return byte >= 0x80 || IsForbiddenInNt(byte);
}

bool IsHighSurrogate(char32_t character) { return character >= 0xd800 && character < 0xdc00; }
bool IsLowSurrogate(char32_t character) { return character >= 0xdc00 && character < 0xe000; }

struct Decoded {
    char32_t Character = 0;
    size_t Length = 0; // 0: not UTF-8
};

// One sequence, in its shortest form only; surrogates pass.
Decoded DecodeSequence(std::string_view bytes)
{
    const auto lead = static_cast<unsigned char>(bytes[0]);
    const size_t length = lead < 0x80             ? 1
                          : (lead & 0xe0) == 0xc0 ? 2
                          : (lead & 0xf0) == 0xe0 ? 3
                          : (lead & 0xf8) == 0xf0 ? 4
                                                  : 0;
    if (length == 0 || length > bytes.size()) return {};
    if (length == 1) return {lead, 1};

    char32_t character = lead & (0x7fu >> length);
    for (size_t i = 1; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        if ((byte & 0xc0) != 0x80) return {};
        character = character << 6 | (byte & 0x3f);
    }
    constexpr char32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    if (character < kLeast[length] || character > 0x10ffff) return {};
    return {character, length};
}

// The character at the front, if it stands for itself in an NT name.
Decoded DecodePlain(std::string_view bytes)
{
    const Decoded decoded = DecodeSequence(bytes);
    if (decoded.Length == 0 || IsEscape(decoded.Character)) return {};
    if (decoded.Length == 1 && IsForbiddenInNt(static_cast<unsigned char>(bytes[0]))) return {};
    // Two surrogates in a row would read as one pair, whose UTF-8 is another one.
    if (IsHighSurrogate(decoded.Character) && bytes.size() > decoded.Length &&
        IsLowSurrogate(DecodeSequence(bytes.substr(decoded.Length)).Character))
        return {};
    return decoded;
}

void AppendUtf16(NtText& text, char32_t character)
{
    if (character < 0x10000) {
        text.push_back(static_cast<char16_t>(character));
        return;
    }
    text.push_back(static_cast<char16_t>(0xd7c0 + (character >> 10)));
    text.push_back(static_cast<char16_t>(0xdc00 + (character & 0x3ff)));
}

void AppendUtf8(std::string& bytes, char32_t character)
{
    if (character < 0x80) {
        bytes.push_back(static_cast<char>(character));
        return;
    }
    const int following = character < 0x800 ? 1 : character < 0x10000 ? 2 : 3;
    constexpr unsigned kLead[] = {0, 0xc0, 0xe0, 0xf0};
    bytes.push_back(static_cast<char>(kLead[following] | character >> (6 * following)));
    for (int i = following - 1; i >= 0; --i) bytes.push_back(static_cast<char>(0x80 | (character >> (6 * i) & 0x3f)));
}

char FoldAscii(char byte) { return byte >= 'a' && byte <= 'z' ? static_cast<char>(byte - 32) : byte; }

char16_t Fold(char16_t unit) { return static_cast<char16_t>(RtlUpcaseUnicodeChar(static_cast<WCHAR>(unit))); }

NTSTATUS ParseComponent(NtTextView text, Components* components)
{
    if (text.empty() || text == u"." || text == u"..") return STATUS_OBJECT_NAME_INVALID;
    std::optional<std::string> name = ToLinuxName(text);
    if (!name) return STATUS_OBJECT_NAME_INVALID;
    if (name->size() > NAME_MAX) return STATUS_NAME_TOO_LONG;
    components->push_back(std::move(*name));
    return STATUS_SUCCESS;
}

} // namespace

NtText TextOf(PCUNICODE_STRING string)
{
    NtText text(string->Length / sizeof(WCHAR), u'\0');
    if (!text.empty()) std::memcpy(text.data(), string->Buffer, text.size() * sizeof(WCHAR));
    return text;
}

NtText ToNtName(std::string_view linuxName)
{
    NtText text;
    text.reserve(linuxName.size());
    while (!linuxName.empty()) {
        const Decoded decoded = DecodePlain(linuxName);
        if (decoded.Length == 0)
            text.push_back(static_cast<char16_t>(kEscapeBase + static_cast<unsigned char>(linuxName[0])));
        else
            AppendUtf16(text, decoded.Character);
        linuxName.remove_prefix(std::max<size_t>(decoded.Length, 1));
    }
    return text;
}

std::optional<std::string> ToLinuxName(NtTextView ntName)
{
    std::string bytes;
    for (size_t i = 0; i < ntName.size(); ++i) {
        const char16_t unit = ntName[i];
        if (unit == u'/' || unit == u'\0') return std::nullopt;
        if (IsEscape(unit)) {
            bytes.push_back(static_cast<char>(unit & 0xff));
        } else if (IsHighSurrogate(unit) && i + 1 < ntName.size() && IsLowSurrogate(ntName[i + 1])) {
            AppendUtf8(bytes, 0x10000 + ((unit & 0x3ffu) << 10) + (ntName[++i] & 0x3ffu));
        } else {
            AppendUtf8(bytes, unit);
        }
    }
    if (ToNtName(bytes) != ntName) return std::nullopt;
    return bytes;
}

bool EqualNames(NtTextView a, NtTextView b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char16_t left, char16_t right) { return left == right || Fold(left) == Fold(right); });
}

NameMatcher::NameMatcher(std::string_view linuxName)
    : bytes_(linuxName), text_(ToNtName(linuxName)), ascii_(IsAscii(linuxName))
{}

bool NameMatcher::Matches(std::string_view candidate) const
{
    if (!ascii_ || !IsAscii(candidate)) return EqualNames(text_, ToNtName(candidate));
    return std::equal(bytes_.begin(), bytes_.end(), candidate.begin(), candidate.end(),
                      [](char left, char right) { return FoldAscii(left) == FoldAscii(right); });
}

NTSTATUS ParsePath(PCUNICODE_STRING path, Components* components)
{
    const NtText text = TextOf(path);
    if (text.empty() || text[0] != u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
    NtTextView rest = NtTextView(text).substr(1);
    while (!rest.empty()) {
        const size_t end = std::min(rest.find(u'\\'), rest.size());
        if (end + 1 == rest.size()) return STATUS_OBJECT_NAME_INVALID; // an empty last component
        if (const NTSTATUS status = ParseComponent(rest.substr(0, end), components); !NT_SUCCESS(status)) return status;
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return STATUS_SUCCESS;
}

} // namespace posixfs
