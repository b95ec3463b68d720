// Counted strings: building, copying, appending, comparing, upcasing. Works on the caller's memory only, so any IRQL,
// except for the upcased copy from paged pool. Lengths are bytes everywhere; a null buffer with length 0 is an empty
// string.

#include <algorithm>
#include <cstring>

#include "rtl/casing.h"

using nthost::rtl::Upcase;

namespace {

constexpr ULONG kStringTag = 0x67727453; // "Strg"

size_t Characters(PCUNICODE_STRING text) { return text->Length / sizeof(WCHAR); }

size_t TextLength(PCWSTR text)
{
    size_t length = 0;
    while (text[length]) ++length;
    return length;
}

// The first index below count at which the texts differ, or count.
size_t Mismatch(PCWCH a, PCWCH b, size_t count, BOOLEAN ignoreCase)
{
    size_t i = 0;
    if (ignoreCase)
        while (i < count && (a[i] == b[i] || Upcase(a[i]) == Upcase(b[i]))) ++i;
    else
        while (i < count && a[i] == b[i]) ++i;
    return i;
}

NTSTATUS Append(PUNICODE_STRING destination, PCWCH source, size_t bytes)
{
    const size_t length = destination->Length + bytes;
    if (length > destination->MaximumLength) return STATUS_BUFFER_TOO_SMALL;
    if (bytes) std::memmove(destination->Buffer + Characters(destination), source, bytes);
    destination->Length = static_cast<USHORT>(length);
    if (length + sizeof(WCHAR) <= destination->MaximumLength) destination->Buffer[length / sizeof(WCHAR)] = 0;
    return STATUS_SUCCESS;
}

} // namespace

// A text too long for the 16-bit lengths is cut to what leaves room for its terminator.
VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString)
{
    *DestinationString = {};
    if (!SourceString) return;
    constexpr size_t most = 0xfffe - sizeof(WCHAR);
    const size_t bytes = std::min(TextLength(SourceString) * sizeof(WCHAR), most);
    DestinationString->Length = static_cast<USHORT>(bytes);
    DestinationString->MaximumLength = static_cast<USHORT>(bytes + sizeof(WCHAR));
    DestinationString->Buffer = const_cast<PWCH>(SourceString);
}

VOID NTAPI RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString)
{
    *DestinationString = {};
    if (!SourceString) return;
    const size_t bytes = std::min<size_t>(std::strlen(SourceString), MAXUSHORT - 1);
    DestinationString->Length = static_cast<USHORT>(bytes);
    DestinationString->MaximumLength = static_cast<USHORT>(bytes + 1);
    DestinationString->Buffer = const_cast<PCHAR>(SourceString);
}

VOID NTAPI RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString)
{
    if (!SourceString) {
        DestinationString->Length = 0;
        return;
    }
    const USHORT bytes = std::min(SourceString->Length, DestinationString->MaximumLength);
    if (bytes) std::memmove(DestinationString->Buffer, SourceString->Buffer, bytes);
    DestinationString->Length = bytes;
    if (bytes + sizeof(WCHAR) <= DestinationString->MaximumLength) DestinationString->Buffer[bytes / sizeof(WCHAR)] = 0;
}

NTSTATUS NTAPI RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source)
{
    return Source->Length ? Append(Destination, Source->Buffer, Source->Length) : STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source)
{
    return Source ? Append(Destination, Source, TextLength(Source) * sizeof(WCHAR)) : STATUS_SUCCESS;
}

// The sign orders the strings by their (folded) 16-bit units, a proper prefix first.
LONG NTAPI RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive)
{
    const size_t common = std::min(Characters(String1), Characters(String2));
    const size_t at = Mismatch(String1->Buffer, String2->Buffer, common, CaseInSensitive);
    if (at == common) return String1->Length - String2->Length;
    const WCHAR a = String1->Buffer[at], b = String2->Buffer[at];
    return CaseInSensitive ? Upcase(a) - Upcase(b) : a - b;
}

BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive)
{
    return String1->Length == String2->Length && RtlPrefixUnicodeString(String1, String2, CaseInSensitive);
}

BOOLEAN NTAPI RtlPrefixUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive)
{
    const size_t count = Characters(String1);
    return count <= Characters(String2) && Mismatch(String1->Buffer, String2->Buffer, count, CaseInSensitive) == count;
}

// The strings may be one and the same.
NTSTATUS NTAPI RtlUpcaseUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString,
                                      BOOLEAN AllocateDestinationString)
{
    const USHORT bytes = SourceString->Length;
    PCWCH source = SourceString->Buffer;
    if (AllocateDestinationString) {
        const SIZE_T size = std::max<SIZE_T>(bytes, sizeof(WCHAR));
        const auto buffer = static_cast<PWCH>(ExAllocatePoolWithTag(PagedPool, size, kStringTag));
        if (!buffer) return STATUS_NO_MEMORY;
        DestinationString->Buffer = buffer;
        DestinationString->MaximumLength = bytes;
    } else if (bytes > DestinationString->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    std::transform(source, source + bytes / sizeof(WCHAR), DestinationString->Buffer, Upcase);
    DestinationString->Length = bytes;
    return STATUS_SUCCESS;
}

VOID NTAPI RtlFreeUnicodeString(PUNICODE_STRING UnicodeString)
{
    if (UnicodeString->Buffer) ExFreePoolWithTag(UnicodeString->Buffer, 0);
    *UnicodeString = {};
}

SIZE_T NTAPI RtlCompareMemory(const VOID* Source1, const VOID* Source2, SIZE_T Length)
{
    const auto a = static_cast<const UCHAR*>(Source1), b = static_cast<const UCHAR*>(Source2);
    return static_cast<SIZE_T>(std::mismatch(a, a + Length, b).first - a);
}
