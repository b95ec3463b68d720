// Characters of 16-bit text and of UTF-8. Pure functions.

#include "rtl/utf8.h"

#include <algorithm>

#include <nthost/debug.h>

namespace nthost::rtl {
namespace {

constexpr bool IsHighSurrogate(char32_t c) { return c >= 0xd800 && c < 0xdc00; }

constexpr bool IsLowSurrogate(char32_t c) { return c >= 0xdc00 && c < 0xe000; }

bool IsContinuation(char byte) { return (static_cast<unsigned char>(byte) & 0xc0) == 0x80; }

// The bytes of the character that this byte begins; 0 for a byte that begins none.
size_t SequenceLength(char lead)
{
    const auto byte = static_cast<unsigned char>(lead);
    if (byte < 0x80) return 1;
    if (byte < 0xc2) return 0;
    return byte < 0xe0 ? 2 : byte < 0xf0 ? 3 : byte < 0xf5 ? 4 : 0;
}

// Overlong forms, surrogates and what lies beyond the last plane show in the second byte already.
bool MayFollow(char lead, char second)
{
    const auto byte = static_cast<unsigned char>(second);
    switch (static_cast<unsigned char>(lead)) {
    case 0xe0: return byte >= 0xa0 && IsContinuation(second);
    case 0xed: return byte < 0xa0 && IsContinuation(second);
    case 0xf0: return byte >= 0x90 && IsContinuation(second);
    case 0xf4: return byte < 0x90 && IsContinuation(second);
    default: return IsContinuation(second);
    }
}

} // namespace

char32_t DecodeUtf8(std::string_view text, size_t* used)
{
    *used = 1;
    const size_t length = SequenceLength(text[0]);
    if (length == 1) return static_cast<unsigned char>(text[0]);
    if (length == 0) return kReplacement;
    char32_t c = static_cast<unsigned char>(text[0]) & (0x7fu >> length);
    for (; *used < length; ++*used) {
        if (*used == text.size()) return kReplacement;
        const char next = text[*used];
        if (!(*used == 1 ? MayFollow(text[0], next) : IsContinuation(next))) return kReplacement;
        c = c << 6 | (static_cast<unsigned char>(next) & 0x3f);
    }
    return c;
}

char32_t DecodeUtf16(const WCHAR* text, size_t units, size_t* used)
{
    *used = 1;
    const char32_t c = text[0];
    if (!IsHighSurrogate(c) && !IsLowSurrogate(c)) return c;
    if (IsLowSurrogate(c) || units < 2 || !IsLowSurrogate(text[1])) return kReplacement;
    *used = 2;
    return 0x10000 + ((c - 0xd800) << 10) + (static_cast<char32_t>(text[1]) - 0xdc00);
}

size_t EncodeUtf8(char32_t character, char* out)
{
    if (character < 0x80) {
        out[0] = static_cast<char>(character);
        return 1;
    }
    const size_t length = character < 0x800 ? 2 : character < 0x10000 ? 3 : 4;
    for (size_t i = length - 1; i > 0; --i, character >>= 6) out[i] = static_cast<char>(0x80 | (character & 0x3f));
    out[0] = static_cast<char>((0xf00u >> length & 0xff) | character);
    return length;
}

size_t WholeUtf8(const char* text, size_t bytes)
{
    for (size_t back = 1; back <= std::min<size_t>(bytes, 3); ++back) {
        const char byte = text[bytes - back];
        if (IsContinuation(byte)) continue;
        return SequenceLength(byte) > back ? bytes - back : bytes;
    }
    return bytes;
}

} // namespace nthost::rtl

namespace nthost {

std::string ToUtf8(const WCHAR* text, size_t characters)
{
    std::string out;
    out.reserve(characters);
    for (size_t i = 0, used = 0; i < characters; i += used) {
        char bytes[4];
        const char32_t c = rtl::DecodeUtf16(text + i, characters - i, &used);
        out.append(bytes, rtl::EncodeUtf8(c, bytes));
    }
    return out;
}

std::string ToUtf8(PCUNICODE_STRING text)
{
    return text && text->Buffer ? ToUtf8(text->Buffer, text->Length / sizeof(WCHAR)) : std::string();
}

std::basic_string<char16_t> FromUtf8(std::string_view text)
{
    std::u16string out;
    out.reserve(text.size());
    for (size_t used = 0; !text.empty(); text.remove_prefix(used)) {
        const char32_t c = rtl::DecodeUtf8(text, &used);
        if (c < 0x10000) {
            out += static_cast<char16_t>(c);
        } else {
            out += static_cast<char16_t>(0xd800 + ((c - 0x10000) >> 10));
            out += static_cast<char16_t>(0xdc00 + ((c - 0x10000) & 0x3ff));
        }
    }
    return out;
}

} // namespace nthost
