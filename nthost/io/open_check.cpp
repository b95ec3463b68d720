// What an open may ask for at all.
#include "io/open.h"

namespace nthost::io {

namespace {

constexpr ULONG SynchronousOptions = FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT;

constexpr ULONG DirectoryOptions = FILE_DIRECTORY_FILE | SynchronousOptions | FILE_WRITE_THROUGH |
                                   FILE_CREATE_TREE_CONNECTION | FILE_COMPLETE_IF_OPLOCKED | FILE_NO_EA_KNOWLEDGE |
                                   FILE_DELETE_ON_CLOSE | FILE_OPEN_BY_FILE_ID | FILE_OPEN_FOR_BACKUP_INTENT |
                                   FILE_NO_COMPRESSION | FILE_OPEN_REPARSE_POINT | FILE_OPEN_NO_RECALL |
                                   FILE_OPEN_FOR_FREE_SPACE_QUERY;

bool HasAll(ULONG value, ULONG bits) { return (value & bits) == bits; }

bool ValuesAreKnown(const OpenParameters& open)
{
    return open.Disposition <= FILE_MAXIMUM_DISPOSITION && !(open.FileAttributes & ~FILE_ATTRIBUTE_VALID_FLAGS) &&
           !(open.ShareAccess & ~FILE_SHARE_VALID_FLAGS) && !(open.Options & ~FILE_VALID_OPTION_FLAGS) &&
           open.AllocationSize.QuadPart >= 0;
}

bool AccessSuffices(const OpenParameters& open)
{
    if ((open.Options & SynchronousOptions) && !(open.DesiredAccess & SYNCHRONIZE)) return false;
    return !(open.Options & FILE_DELETE_ON_CLOSE) || (open.DesiredAccess & DELETE);
}

bool DirectoryOptionsFit(const OpenParameters& open)
{
    if (!(open.Options & FILE_DIRECTORY_FILE)) return true;
    const bool createsOrOpens =
        open.Disposition == FILE_CREATE || open.Disposition == FILE_OPEN || open.Disposition == FILE_OPEN_IF;
    return createsOrOpens && !(open.Options & ~DirectoryOptions); // FILE_NON_DIRECTORY_FILE is not among them
}

bool OptionsExcludeEachOther(const OpenParameters& open)
{
    return HasAll(open.Options, SynchronousOptions) ||
           HasAll(open.Options, FILE_COMPLETE_IF_OPLOCKED | FILE_RESERVE_OPFILTER) ||
           // An append needs no alignment, unbuffered I/O does.
           ((open.Options & FILE_NO_INTERMEDIATE_BUFFERING) && (open.DesiredAccess & FILE_APPEND_DATA));
}

} // namespace

NTSTATUS CheckOpenParameters(const OpenParameters& open)
{
    if (open.Mode == KernelMode) return STATUS_SUCCESS; // which is taken to know what it asks for
    const bool valid =
        ValuesAreKnown(open) && AccessSuffices(open) && DirectoryOptionsFit(open) && !OptionsExcludeEachOther(open);
    return valid ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

} // namespace nthost::io
