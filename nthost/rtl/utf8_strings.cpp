// RtlUTF8ToUnicodeN and its reverse. Any IRQL; nothing but the arguments is touched.
#include "rtl/utf8.h"

#include <cstring>

namespace nthost::rtl {

namespace {

// Takes whole pieces of `Unit`s up to a number of bytes. Without a buffer all that comes is counted.
template <typename Unit>
class Output {
public:
    Output(Unit* to, ULONG bytes) : to_(to), room_(bytes / sizeof(Unit)) {}

    // False if the piece does not fit.
    bool Put(const Unit* piece, size_t units)
    {
        if (to_ && units > room_ - used_) return false;
        if (to_) memcpy(to_ + used_, piece, units * sizeof(Unit));
        used_ += units;
        return true;
    }
    ULONG Bytes() const { return static_cast<ULONG>(used_ * sizeof(Unit)); }

private:
    Unit* const to_;
    const size_t room_;
    size_t used_ = 0;
};

size_t EncodeUtf16(char32_t character, WCHAR* out)
{
    if (character < 0x10000) {
        out[0] = static_cast<WCHAR>(character);
        return 1;
    }
    out[0] = static_cast<WCHAR>(0xd800 + ((character - 0x10000) >> 10));
    out[1] = static_cast<WCHAR>(0xdc00 + ((character - 0x10000) & 0x3ff));
    return 2;
}

// A replacement that stands in the text itself is none; it is three bytes, or a unit of its own.
bool IsReplaced(char32_t character, const char* text, size_t used)
{
    return character == kReplacement && !(used == 3 && memcmp(text, "\xef\xbf\xbd", 3) == 0);
}

NTSTATUS ToUnicode(Output<WCHAR>& output, std::string_view text)
{
    NTSTATUS status = STATUS_SUCCESS;
    for (size_t used = 0; !text.empty(); text.remove_prefix(used)) {
        WCHAR units[2];
        const char32_t character = DecodeUtf8(text, &used);
        if (!output.Put(units, EncodeUtf16(character, units))) return STATUS_BUFFER_TOO_SMALL;
        if (IsReplaced(character, text.data(), used)) status = STATUS_SOME_NOT_MAPPED;
    }
    return status;
}

NTSTATUS FromUnicode(Output<char>& output, const WCHAR* text, size_t units)
{
    NTSTATUS status = STATUS_SUCCESS;
    for (size_t i = 0, used = 0; i < units; i += used) {
        char bytes[4];
        const char32_t character = DecodeUtf16(text + i, units - i, &used);
        if (!output.Put(bytes, EncodeUtf8(character, bytes))) return STATUS_BUFFER_TOO_SMALL;
        if (character == kReplacement && text[i] != kReplacement) status = STATUS_SOME_NOT_MAPPED;
    }
    return status;
}

} // namespace

} // namespace nthost::rtl

using namespace nthost::rtl;

NTSTATUS NTAPI RtlUTF8ToUnicodeN(PWSTR UnicodeStringDestination, ULONG UnicodeStringMaxByteCount,
                                 PULONG UnicodeStringActualByteCount, PCSTR UTF8StringSource, ULONG UTF8StringByteCount)
{
    if (!UTF8StringSource) return STATUS_INVALID_PARAMETER_4;
    if (!UnicodeStringDestination && !UnicodeStringActualByteCount) return STATUS_INVALID_PARAMETER;
    Output<WCHAR> output(UnicodeStringDestination, UnicodeStringMaxByteCount);
    const NTSTATUS status = ToUnicode(output, {UTF8StringSource, UTF8StringByteCount});
    if (UnicodeStringActualByteCount) *UnicodeStringActualByteCount = output.Bytes();
    return status;
}

NTSTATUS NTAPI RtlUnicodeToUTF8N(PSTR UTF8StringDestination, ULONG UTF8StringMaxByteCount,
                                 PULONG UTF8StringActualByteCount, PCWSTR UnicodeStringSource,
                                 ULONG UnicodeStringByteCount)
{
    if (!UnicodeStringSource) return STATUS_INVALID_PARAMETER_4;
    if (!UTF8StringActualByteCount) return STATUS_INVALID_PARAMETER;
    if (UnicodeStringByteCount % sizeof(WCHAR)) return STATUS_INVALID_PARAMETER_5;
    Output<char> output(UTF8StringDestination, UTF8StringMaxByteCount);
    const NTSTATUS status = FromUnicode(output, UnicodeStringSource, UnicodeStringByteCount / sizeof(WCHAR));
    *UTF8StringActualByteCount = output.Bytes();
    return status;
}
