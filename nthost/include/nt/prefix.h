// The Unicode prefix table: finds the entry whose name is the longest prefix, by whole components, of a path. The links
// live in the caller's entries and nothing is allocated. Callers serialise all routines: a lookup moves links too.
#pragma once

#include "base.h"

NT_EXTERN_C_BEGIN

// The parent of a root is the root itself.
typedef struct _RTL_SPLAY_LINKS {
    struct _RTL_SPLAY_LINKS* Parent;
    struct _RTL_SPLAY_LINKS* LeftChild;
    struct _RTL_SPLAY_LINKS* RightChild;
} RTL_SPLAY_LINKS, *PRTL_SPLAY_LINKS;

typedef struct _UNICODE_PREFIX_TABLE_ENTRY {
    CSHORT NodeTypeCode;
    CSHORT NameLength; // components of the name
    struct _UNICODE_PREFIX_TABLE_ENTRY* NextPrefixTree;
    struct _UNICODE_PREFIX_TABLE_ENTRY* CaseMatch;
    RTL_SPLAY_LINKS Links;
    PUNICODE_STRING Prefix;
} UNICODE_PREFIX_TABLE_ENTRY, *PUNICODE_PREFIX_TABLE_ENTRY;

typedef struct _UNICODE_PREFIX_TABLE {
    CSHORT NodeTypeCode;
    CSHORT NameLength;
    PUNICODE_PREFIX_TABLE_ENTRY NextPrefixTree;
    PUNICODE_PREFIX_TABLE_ENTRY LastNextEntry;
} UNICODE_PREFIX_TABLE, *PUNICODE_PREFIX_TABLE;

NTSYSAPI VOID NTAPI RtlInitializeUnicodePrefix(PUNICODE_PREFIX_TABLE PrefixTable);
// FALSE, with table and entry unchanged, if the same name in the same case is there already. The string and its text
// belong to the caller and must stay as they are until the entry is removed.
NTSYSAPI BOOLEAN NTAPI RtlInsertUnicodePrefix(PUNICODE_PREFIX_TABLE PrefixTable, PUNICODE_STRING Prefix,
                                              PUNICODE_PREFIX_TABLE_ENTRY PrefixTableEntry);
// The entry must be in the table.
NTSYSAPI VOID NTAPI RtlRemoveUnicodePrefix(PUNICODE_PREFIX_TABLE PrefixTable,
                                           PUNICODE_PREFIX_TABLE_ENTRY PrefixTableEntry);
// The first CaseInsensitiveIndex characters compare exactly, those after them without regard to case. Null if no name
// in the table is a prefix.
NTSYSAPI PUNICODE_PREFIX_TABLE_ENTRY NTAPI RtlFindUnicodePrefix(PUNICODE_PREFIX_TABLE PrefixTable,
                                                                PUNICODE_STRING FullName, ULONG CaseInsensitiveIndex);
// Walks all entries, each once; null after the last. Restart begins anew, and so does the first call after a change
// of the table.
NTSYSAPI PUNICODE_PREFIX_TABLE_ENTRY NTAPI RtlNextUnicodePrefix(PUNICODE_PREFIX_TABLE PrefixTable, BOOLEAN Restart);

NT_EXTERN_C_END
