// The run-time library: counted strings, case folding over the whole 16-bit range, integer text, debug output.
// Any IRQL for what touches only its arguments; the routines that allocate say so.
#pragma once

#include "base.h"
#include "status.h"

NT_EXTERN_C_BEGIN

// What an assertion of a checked driver reports: a finding "assertion-failed" here.
NTSYSAPI VOID NTAPI RtlAssert(PVOID FailedAssertion, PVOID FileName, ULONG LineNumber, PSTR Message);

NTSYSAPI VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString);
NTSYSAPI VOID NTAPI RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString);

// Copies as much as fits MaximumLength; terminates when a whole character of room is left. A null source empties.
NTSYSAPI VOID NTAPI RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString);

// STATUS_BUFFER_TOO_SMALL, with the destination unchanged, if the whole text does not fit.
NTSYSAPI NTSTATUS NTAPI RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source);
NTSYSAPI NTSTATUS NTAPI RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source);

NTSYSAPI LONG NTAPI RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                            BOOLEAN CaseInSensitive);
NTSYSAPI BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                             BOOLEAN CaseInSensitive);
NTSYSAPI BOOLEAN NTAPI RtlPrefixUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                              BOOLEAN CaseInSensitive);

// One 16-bit unit, no surrogate pairs: simple one-to-one folding.
NTSYSAPI WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR SourceCharacter);
NTSYSAPI WCHAR NTAPI RtlDowncaseUnicodeChar(WCHAR SourceCharacter);
// With AllocateDestinationString the buffer comes from paged pool and goes with RtlFreeUnicodeString; without it a
// destination too short gives STATUS_BUFFER_OVERFLOW.
NTSYSAPI NTSTATUS NTAPI RtlUpcaseUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString,
                                               BOOLEAN AllocateDestinationString);
NTSYSAPI VOID NTAPI RtlFreeUnicodeString(PUNICODE_STRING UnicodeString);

// Base 0 takes a prefix 0x, 0o or 0b, else decimal. STATUS_INVALID_PARAMETER for another base than 0, 2, 8, 10, 16.
NTSYSAPI NTSTATUS NTAPI RtlUnicodeStringToInteger(PCUNICODE_STRING String, ULONG Base, PULONG Value);
NTSYSAPI NTSTATUS NTAPI RtlIntegerToUnicodeString(ULONG Value, ULONG Base, PUNICODE_STRING String);

// Without a destination only the byte count is told. STATUS_SOME_NOT_MAPPED where what is no text became U+FFFD;
// STATUS_BUFFER_TOO_SMALL with as many whole characters as fit; STATUS_INVALID_PARAMETER without destination and count
// (from Unicode: without a count), _4 without a source, _5 for half a unit at the end of the source.
NTSYSAPI NTSTATUS NTAPI RtlUTF8ToUnicodeN(PWSTR UnicodeStringDestination, ULONG UnicodeStringMaxByteCount,
                                          PULONG UnicodeStringActualByteCount, PCSTR UTF8StringSource,
                                          ULONG UTF8StringByteCount);
NTSYSAPI NTSTATUS NTAPI RtlUnicodeToUTF8N(PSTR UTF8StringDestination, ULONG UTF8StringMaxByteCount,
                                          PULONG UTF8StringActualByteCount, PCWSTR UnicodeStringSource,
                                          ULONG UnicodeStringByteCount);

NTSYSAPI SIZE_T NTAPI RtlCompareMemory(const VOID* Source1, const VOID* Source2, SIZE_T Length);

// Debug output goes to nthost's sink (nthost/debug.h), which costs a load and a branch when nobody listens. Formats:
// flags, width and precision as in C; %d %i %u %x %X %o %c %C %s %S %ws %ls %hs %Z %wZ %p, with the size prefixes h, l,
// ll, I64, I32, I. %S and %ws take 16-bit text, %Z and %wZ counted strings.
NTSYSAPI ULONG NTAPI DbgPrint(PCSTR Format, ...);
#define DPFLTR_DEFAULT_ID    101
#define DPFLTR_IHVDRIVER_ID  77
#define DPFLTR_ERROR_LEVEL   0
#define DPFLTR_WARNING_LEVEL 1
#define DPFLTR_TRACE_LEVEL   2
#define DPFLTR_INFO_LEVEL    3
#define DPFLTR_MASK          0x80000000u
// Nothing is filtered: all components and levels go to the sink.
NTSYSAPI ULONG NTAPI DbgPrintEx(ULONG ComponentId, ULONG Level, PCSTR Format, ...);

NT_EXTERN_C_END

#include "prefix.h"
