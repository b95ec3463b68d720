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

// The address at which this code can touch the request's data; null if there is none or it cannot be mapped. Without an
// MDL it is the caller's own address, unprobed.
[[nodiscard]] void* GvUtlMapBufferForIo(PIRP irp);

// The same, probed for the access (IoReadAccess or IoWriteAccess) when it is a user-mode caller's own address; one that
// came through a worker is a system address. STATUS_ACCESS_VIOLATION for a bad one, STATUS_UNSUCCESSFUL for none; the
// caller traces both.
[[nodiscard]] NTSTATUS GvUtlMapProbedBuffer(PIRP irp, ULONG length, LOCK_OPERATION access, void** buffer);

// The directory's entry of that ordinal, with a name that is a counted string. STATUS_NO_MORE_FILES behind the last
// one, STATUS_UNSUCCESSFUL for a success without an entry. The caller traces.
[[nodiscard]] NTSTATUS GvReadDirEntryFromPlugin(IrpContext* context, const Fcb* directory, ULONG index,
                                                GvBlock<PluginDirEntry>* entry);
// STATUS_SUCCESS if the directory may go, STATUS_DIRECTORY_NOT_EMPTY, STATUS_UNSUCCESSFUL while a child control block
// lives, or the plugin's failure. Under the directory's lock.
[[nodiscard]] NTSTATUS GvUtlIsPluginDirEmpty(IrpContext* context, Fcb* fcb);

// The single place where a change could be reported. Reports nothing.
void GvUtlReportChange(Vcb* vcb, Fcb* fcb, ULONG filter, ULONG action);
