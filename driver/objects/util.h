// The small routines that the whole driver shares. None takes a lock of its own.
#pragma once

#include "frame/pool.h"
#include "frame/records.h"

using GvString = GvBlock<UNICODE_STRING>;

// Header and text in one block, one free. Null for a capacity of 65535 or more, or without memory. Length is 0.
[[nodiscard]] PUNICODE_STRING GvUtlAllocUnicodeString(POOL_TYPE pool, ULONG capacity);

// Index, in characters, of the last occurrence. STATUS_UNSUCCESSFUL if there is none.
[[nodiscard]] NTSTATUS GvUtlUniStrRChr(PCUNICODE_STRING text, WCHAR character, USHORT* index);

// Is component one whole component of path? STATUS_INVALID_PARAMETER for a malformed path or component.
[[nodiscard]] NTSTATUS GvUtlDoesPathHaveComponent(PCUNICODE_STRING path, const WCHAR* component, bool* found);

// STATUS_OBJECT_NAME_INVALID for a character that no name may have; separators pass.
[[nodiscard]] NTSTATUS GvEnsurePathCharsAreLegal(PCUNICODE_STRING path);
// May this be the last component of a name? STATUS_OBJECT_NAME_INVALID for none at all, a separator or an illegal
// character, STATUS_OBJECT_PATH_SYNTAX_BAD for a dot component.
[[nodiscard]] NTSTATUS GvCheckLeaf(PCUNICODE_STRING leaf);

bool GvUtlEndsInBackslash(PCUNICODE_STRING path);
// The path is exactly one backslash.
bool GvUtlIsRootPath(PCUNICODE_STRING path);

enum class GvAllocateResource : bool {
    No, // *resource points to one in place
    Yes
};
[[nodiscard]] NTSTATUS GvUtlAllocAndInitResource(PERESOURCE* resource, GvAllocateResource allocate);
NTSTATUS GvUtlDeleteResource(PERESOURCE resource, GvAllocateResource allocated);

// A kernel handle, the caller's to close.
[[nodiscard]] NTSTATUS GvUtlOpenFileWithNoAccess(PUNICODE_STRING path, HANDLE* handle);

// STATUS_SUCCESS if the directory may go, STATUS_DIRECTORY_NOT_EMPTY, STATUS_UNSUCCESSFUL while a child control block
// lives, or the plugin's failure. Under the directory's lock.
[[nodiscard]] NTSTATUS GvUtlIsPluginDirEmpty(IrpContext* context, Fcb* fcb);

// The single place where a change could be reported. Reports nothing.
void GvUtlReportChange(Vcb* vcb, Fcb* fcb, ULONG filter, ULONG action);
