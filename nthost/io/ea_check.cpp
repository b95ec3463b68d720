// The structure of a list of extended attributes; what stands in names and values is the file system's business. Reads
// nothing beyond the length, whatever the records claim, and does not rely on the buffer's alignment.

#include <ntifs.h>

#include <cstring>

namespace {

constexpr ULONG NameOffset = FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName);

FILE_FULL_EA_INFORMATION HeaderAt(const char* record)
{
    FILE_FULL_EA_INFORMATION header = {};
    std::memcpy(&header, record, NameOffset);
    return header;
}

// The bytes of the record at the start of what is left, or 0 if it is not whole.
ULONG SizeOfRecord(const char* record, ULONG left)
{
    if (left <= NameOffset) return 0;
    const FILE_FULL_EA_INFORMATION header = HeaderAt(record);
    const ULONG size = NameOffset + header.EaNameLength + 1 + header.EaValueLength;
    return size <= left && record[NameOffset + header.EaNameLength] == '\0' ? size : 0;
}

} // namespace

NTSTATUS NTAPI IoCheckEaBufferValidity(PFILE_FULL_EA_INFORMATION buffer, ULONG length, PULONG errorOffset)
{
    const char* const bytes = reinterpret_cast<const char*>(buffer);
    for (ULONG offset = 0;;) {
        const ULONG size = SizeOfRecord(bytes + offset, length - offset);
        const ULONG next = size ? HeaderAt(bytes + offset).NextEntryOffset : 0;
        if (size && next == 0) return STATUS_SUCCESS;
        // A successor begins at the next 4-byte boundary behind the record, nowhere else.
        if (!size || next != ((size + 3) & ~3u) || next > length - offset) {
            *errorOffset = offset;
            return STATUS_EA_LIST_INCONSISTENT;
        }
        offset += next;
    }
}
