// Scalar types, calling-convention words and the counted strings of the NT interface, with their x64 widths.
// LONG and ULONG are 32 bits, WCHAR is a 16-bit wchar_t (-fshort-wchar).
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define NT_EXTERN_C_BEGIN extern "C" {
#define NT_EXTERN_C_END   }
static_assert(sizeof(wchar_t) == 2, "compile with -fshort-wchar");
#else
#define NT_EXTERN_C_BEGIN
#define NT_EXTERN_C_END
_Static_assert(sizeof(wchar_t) == 2, "compile with -fshort-wchar");
#endif

// Every routine and callback that crosses between kernel, driver and plugin carries NTAPI. With NTHOST_MS_ABI, which
// everything that is linked together must agree on, they all have the calling convention of the platform, and a kernel
// image can call them and be called as it is.
#ifndef NTHOST_MS_ABI
#define NTHOST_MS_ABI 0
#endif
#if NTHOST_MS_ABI
#define NTAPI __attribute__((ms_abi))
// The rest of an NTAPI routine's arguments, for va_arg.
#define NT_VA_LIST        __builtin_ms_va_list
#define NT_VA_START(l, p) __builtin_ms_va_start(l, p)
#define NT_VA_COPY(d, s)  __builtin_ms_va_copy(d, s)
#define NT_VA_END(l)      __builtin_ms_va_end(l)
#else
#define NTAPI
#define NT_VA_LIST        __builtin_va_list
#define NT_VA_START(l, p) __builtin_va_start(l, p)
#define NT_VA_COPY(d, s)  __builtin_va_copy(d, s)
#define NT_VA_END(l)      __builtin_va_end(l)
#endif
#define FASTCALL NTAPI
#define NTKERNELAPI
#define NTSYSAPI
#define DECLSPEC_NORETURN         __attribute__((noreturn))
#define FORCEINLINE               static inline __attribute__((always_inline))
#define DECLSPEC_ALIGN(n)         __attribute__((aligned(n)))
#define UNREFERENCED_PARAMETER(p) ((void)(p))

#define IN
#define OUT
#define OPTIONAL
#define CONST const
#define VOID  void

typedef char CHAR, CCHAR;
typedef signed char SCHAR;
typedef unsigned char UCHAR, BOOLEAN, *PUCHAR, *PBOOLEAN;
typedef short SHORT, CSHORT, *PSHORT;
typedef unsigned short USHORT, *PUSHORT;
typedef int INT, LONG, *PLONG;
typedef unsigned int UINT, ULONG, *PULONG;
typedef long long LONGLONG, LONG64, *PLONGLONG;
typedef unsigned long long ULONGLONG, ULONG64, *PULONGLONG, *PULONG64;
typedef long long LONG_PTR;
typedef unsigned long long ULONG_PTR, SIZE_T, KAFFINITY, *PULONG_PTR, *PSIZE_T;
typedef wchar_t WCHAR, *PWCHAR, *PWCH, *PWSTR;
typedef const wchar_t *PCWSTR, *PCWCH;
typedef char *PCHAR, *PSTR;
typedef const char *PCSTR, *PCSZ;
typedef void *PVOID, *HANDLE, **PHANDLE;
typedef const void* PCVOID;
typedef LONG NTSTATUS, *PNTSTATUS;
typedef ULONG ACCESS_MASK, *PACCESS_MASK, LOGICAL;
typedef CCHAR KPROCESSOR_MODE;
typedef UCHAR KIRQL, *PKIRQL;
typedef LONG KPRIORITY;
typedef ULONG DEVICE_TYPE;

#define TRUE  1
#define FALSE 0
#ifndef NULL
#define NULL 0
#endif
#define MAXUSHORT     0xffff
#define MAXULONG      0xffffffffu
#define ANYSIZE_ARRAY 1

typedef enum _MODE { KernelMode, UserMode, MaximumMode } MODE;

typedef union _LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    };
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY* Flink;
    struct _LIST_ENTRY* Blink;
} LIST_ENTRY, *PLIST_ENTRY;

typedef struct _SINGLE_LIST_ENTRY {
    struct _SINGLE_LIST_ENTRY* Next;
} SINGLE_LIST_ENTRY, *PSINGLE_LIST_ENTRY;

// Lengths are bytes. The text need not be NUL-terminated.
typedef struct _UNICODE_STRING {
    USHORT Length;
    USHORT MaximumLength;
    PWCH Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING* PCUNICODE_STRING;

typedef struct _STRING {
    USHORT Length;
    USHORT MaximumLength;
    PCHAR Buffer;
} STRING, *PSTRING, ANSI_STRING, *PANSI_STRING, OEM_STRING, *POEM_STRING;
typedef const STRING* PCANSI_STRING;

typedef struct _OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;

typedef struct _CLIENT_ID {
    HANDLE UniqueProcess;
    HANDLE UniqueThread;
} CLIENT_ID, *PCLIENT_ID;

typedef struct _GUID {
    ULONG Data1;
    USHORT Data2;
    USHORT Data3;
    UCHAR Data4[8];
} GUID;
typedef const GUID* LPCGUID;

typedef PVOID PSECURITY_DESCRIPTOR, PSID;

// Opaque to drivers.
typedef struct _ETHREAD *PETHREAD, *PKTHREAD;
typedef struct _EPROCESS *PEPROCESS, *PKPROCESS;
typedef struct _OBJECT_TYPE* POBJECT_TYPE;
typedef struct _ACCESS_STATE* PACCESS_STATE;

#define OBJ_INHERIT            0x2
#define OBJ_PERMANENT          0x10
#define OBJ_EXCLUSIVE          0x20
#define OBJ_CASE_INSENSITIVE   0x40
#define OBJ_OPENIF             0x80
#define OBJ_OPENLINK           0x100
#define OBJ_KERNEL_HANDLE      0x200
#define OBJ_FORCE_ACCESS_CHECK 0x400

#define InitializeObjectAttributes(p, n, a, r, s) \
    do {                                          \
        (p)->Length = sizeof(OBJECT_ATTRIBUTES);  \
        (p)->RootDirectory = (r);                 \
        (p)->ObjectName = (n);                    \
        (p)->Attributes = (a);                    \
        (p)->SecurityDescriptor = (s);            \
        (p)->SecurityQualityOfService = NULL;     \
    } while (0)

#define FIELD_OFFSET(type, field)               ((LONG)offsetof(type, field))
#define CONTAINING_RECORD(address, type, field) ((type*)((char*)(address)-offsetof(type, field)))

#define DELETE                   0x00010000u
#define READ_CONTROL             0x00020000u
#define WRITE_DAC                0x00040000u
#define WRITE_OWNER              0x00080000u
#define SYNCHRONIZE              0x00100000u
#define STANDARD_RIGHTS_REQUIRED 0x000f0000u
#define STANDARD_RIGHTS_READ     READ_CONTROL
#define STANDARD_RIGHTS_WRITE    READ_CONTROL
#define STANDARD_RIGHTS_EXECUTE  READ_CONTROL
#define STANDARD_RIGHTS_ALL      0x001f0000u
#define ACCESS_SYSTEM_SECURITY   0x01000000u
#define MAXIMUM_ALLOWED          0x02000000u
#define GENERIC_ALL              0x10000000u
#define GENERIC_EXECUTE          0x20000000u
#define GENERIC_WRITE            0x40000000u
#define GENERIC_READ             0x80000000u

typedef struct _GENERIC_MAPPING {
    ACCESS_MASK GenericRead;
    ACCESS_MASK GenericWrite;
    ACCESS_MASK GenericExecute;
    ACCESS_MASK GenericAll;
} GENERIC_MAPPING, *PGENERIC_MAPPING;

#define PASSIVE_LEVEL  0
#define APC_LEVEL      1
#define DISPATCH_LEVEL 2
#define HIGH_LEVEL     15
