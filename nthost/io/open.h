// Opening a file: what a service or the I/O manager itself asks for, and what comes of it.
#pragma once

#include <ntifs.h>

namespace nthost::io {

struct OpenParameters {
    KPROCESSOR_MODE Mode;
    PCUNICODE_STRING Name;
    PFILE_OBJECT Related; // the name is relative to it; null for a full path
    ULONG Attributes;     // OBJ_...
    ACCESS_MASK DesiredAccess;
    LARGE_INTEGER AllocationSize;
    ULONG FileAttributes;
    ULONG ShareAccess;
    ULONG Disposition;
    ULONG Options;
    void* EaBuffer; // a checked list in memory of the system, the caller's of this; or null
    ULONG EaLength;
    UCHAR LocationFlags; // SL_..., beyond those that follow from Attributes
};

struct OpenedFile {
    PFILE_OBJECT File; // referenced for the caller, on success only
    ACCESS_MASK Granted;
    IO_STATUS_BLOCK Result;
};

// The file object that a name is to be relative to, referenced; null for no handle.
[[nodiscard]] NTSTATUS ReferenceRelated(HANDLE root, KPROCESSOR_MODE mode, PFILE_OBJECT* related);

// STATUS_INVALID_PARAMETER for combinations that no file system gets to see from a user-mode caller.
[[nodiscard]] NTSTATUS CheckOpenParameters(const OpenParameters& open);

// Follows the name to a device and sends the create, from the top again as often as a file system answers with
// STATUS_REPARSE, at most 32 times (then STATUS_OBJECT_NAME_INVALID). Result is the driver's also on failure.
[[nodiscard]] NTSTATUS OpenFile(const OpenParameters& open, OpenedFile* opened);

} // namespace nthost::io
