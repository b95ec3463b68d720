// Integers to and from counted 16-bit text. Works on the caller's memory only; any IRQL.

#include <algorithm>
#include <iterator>

#include <ntifs.h>

namespace {

bool IsKnownBase(ULONG base) { return base == 2 || base == 8 || base == 10 || base == 16; }

// The value of a digit of any base, or one that no base has.
ULONG DigitValue(WCHAR c)
{
    if (c >= '0' && c <= '9') return static_cast<ULONG>(c - '0');
    if (c >= 'a' && c <= 'f') return static_cast<ULONG>(c - 'a' + 10);
    if (c >= 'A' && c <= 'F') return static_cast<ULONG>(c - 'A' + 10);
    return MAXULONG;
}

ULONG BaseOfPrefix(WCHAR letter) { return letter == 'x' ? 16 : letter == 'o' ? 8 : letter == 'b' ? 2 : 0; }

} // namespace

// Leading blanks and controls, then a sign, are skipped; the first character that is no digit ends the number. A number
// without digits is 0, one too large wraps.
NTSTATUS NTAPI RtlUnicodeStringToInteger(PCUNICODE_STRING String, ULONG Base, PULONG Value)
{
    if (Base != 0 && !IsKnownBase(Base)) return STATUS_INVALID_PARAMETER;
    PCWCH at = String->Buffer;
    const PCWCH end = at + String->Length / sizeof(WCHAR);
    while (at < end && *at <= ' ') ++at;
    const bool negative = at < end && *at == '-';
    if (at < end && (*at == '-' || *at == '+')) ++at;
    if (Base == 0) {
        Base = end - at >= 2 && *at == '0' ? BaseOfPrefix(at[1]) : 0;
        if (Base)
            at += 2;
        else
            Base = 10;
    }
    ULONG value = 0;
    for (; at < end && DigitValue(*at) < Base; ++at) value = value * Base + DigitValue(*at);
    *Value = negative ? 0u - value : value;
    return STATUS_SUCCESS;
}

// Base 0 means 10. The text is terminated, and STATUS_BUFFER_OVERFLOW says that text and terminator do not fit.
NTSTATUS NTAPI RtlIntegerToUnicodeString(ULONG Value, ULONG Base, PUNICODE_STRING String)
{
    if (Base == 0) Base = 10;
    if (!IsKnownBase(Base)) return STATUS_INVALID_PARAMETER;
    char digits[32];
    char* first = std::end(digits);
    do *--first = "0123456789ABCDEF"[Value % Base];
    while (Value /= Base);
    const size_t bytes = static_cast<size_t>(std::end(digits) - first) * sizeof(WCHAR);
    if (bytes + sizeof(WCHAR) > String->MaximumLength) return STATUS_BUFFER_OVERFLOW;
    *std::copy(first, std::end(digits), String->Buffer) = 0;
    String->Length = static_cast<USHORT>(bytes);
    return STATUS_SUCCESS;
}
