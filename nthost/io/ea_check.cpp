// The structure of lists of extended attributes; what stands in names and values is the file system's business. Reads
// nothing beyond the length, whatever the records claim, and does not rely on the buffer's alignment.
#include "io/ea_list.h"

#include <cstdlib>
#include <cstring>

#include "io/request.h"
#include "ob/capture.h"

namespace nthost::io {

namespace {

template <typename Record>
Record HeaderAt(const char* record)
{
    Record header = {};
    memcpy(static_cast<void*>(&header), record, FIELD_OFFSET(Record, EaName));
    return header;
}

// The bytes of the record at the start of what is left, or 0 if it is not whole.
ULONG SizeOfAttribute(const char* record, ULONG left)
{
    constexpr ULONG NameOffset = FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName);
    if (left <= NameOffset) return 0;
    const auto header = HeaderAt<FILE_FULL_EA_INFORMATION>(record);
    const ULONG size = NameOffset + header.EaNameLength + 1 + header.EaValueLength;
    return size <= left && record[NameOffset + header.EaNameLength] == '\0' ? size : 0;
}

// A name's length says where it ends, so its NUL only needs to have room.
ULONG SizeOfName(const char* record, ULONG left)
{
    constexpr ULONG NameOffset = FIELD_OFFSET(FILE_GET_EA_INFORMATION, EaName);
    if (left <= NameOffset) return 0;
    const ULONG size = NameOffset + HeaderAt<FILE_GET_EA_INFORMATION>(record).EaNameLength + 1;
    return size <= left ? size : 0;
}

ULONG NextOf(const char* record)
{
    ULONG next;
    memcpy(&next, record, sizeof next); // the first field of either kind
    return next;
}

template <typename SizeOf>
NTSTATUS CheckList(const char* list, ULONG length, ULONG* errorOffset, SizeOf sizeOf)
{
    for (ULONG offset = 0;;) {
        const ULONG size = sizeOf(list + offset, length - offset);
        const ULONG next = size ? NextOf(list + offset) : 0;
        if (size && next == 0) return STATUS_SUCCESS;
        // A successor begins at the next 4-byte boundary behind the record, nowhere else.
        if (!size || next != ((size + 3) & ~3u) || next > length - offset) {
            *errorOffset = offset;
            return STATUS_EA_LIST_INCONSISTENT;
        }
        offset += next;
    }
}

} // namespace

void FreeBuffer::operator()(void* buffer) const { free(buffer); }

NTSTATUS CaptureList(const void* list, ULONG length, KPROCESSOR_MODE mode, CapturedList* captured)
{
    if (!list || !length) return STATUS_SUCCESS;
    const NTSTATUS status = ob::ProbeUserForRead(list, length, sizeof(ULONG), mode);
    if (!NT_SUCCESS(status)) return status;
    captured->reset(NewSystemBuffer(length));
    if (!*captured) return STATUS_INSUFFICIENT_RESOURCES;
    return ob::CopyFromUser(captured->get(), list, length, sizeof(ULONG), mode);
}

NTSTATUS CheckEaNames(const void* list, ULONG length, ULONG* errorOffset)
{
    return CheckList(static_cast<const char*>(list), length, errorOffset, SizeOfName);
}

NTSTATUS TellInconsistent(NTSTATUS status, ULONG errorOffset, PIO_STATUS_BLOCK block, KPROCESSOR_MODE mode)
{
    if (status != STATUS_EA_LIST_INCONSISTENT) return status;
    const NTSTATUS written = ob::WriteUser(block, IO_STATUS_BLOCK{{status}, errorOffset}, mode);
    return NT_SUCCESS(written) ? status : written;
}

} // namespace nthost::io

NTSTATUS NTAPI IoCheckEaBufferValidity(PFILE_FULL_EA_INFORMATION EaBuffer, ULONG EaLength, PULONG ErrorOffset)
{
    using namespace nthost::io;
    return CheckList(reinterpret_cast<const char*>(EaBuffer), EaLength, ErrorOffset, SizeOfAttribute);
}
