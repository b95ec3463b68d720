// One record at the end of a list of extended attributes. The list lies where the caller of the request wants it, so
// fields are copied in: nothing says that the buffer is aligned.

#include "ea/ea.h"

#include "ea/record.h"
#include "frame/trace.h"

namespace {

void WriteRecord(UCHAR* record, const char* name, ULONG nameLength, const void* value, ULONG valueLength)
{
    constexpr ULONG kNameOffset = FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName);
    FILE_FULL_EA_INFORMATION header = {};
    header.EaNameLength = static_cast<UCHAR>(nameLength);
    header.EaValueLength = static_cast<USHORT>(valueLength);
    RtlCopyMemory(record, &header, kNameOffset);
    RtlCopyMemory(record + kNameOffset, name, nameLength);
    record[kNameOffset + nameLength] = 0;
    if (valueLength) RtlCopyMemory(record + kNameOffset + nameLength + 1, value, valueLength);
}

void LinkRecord(UCHAR* previous, const UCHAR* record)
{
    const auto distance = static_cast<ULONG>(record - previous);
    RtlCopyMemory(previous + FIELD_OFFSET(FILE_FULL_EA_INFORMATION, NextEntryOffset), &distance, sizeof(distance));
}

} // namespace

NTSTATUS GvAppendEaNameValueToFullEaInfo(const char* name, ULONG nameLength, const void* value, ULONG valueLength,
                                         GvEaList* list)
{
    if (nameLength > GvMaximumEaName)
        return GV_REFUSE(STATUS_INVALID_PARAMETER, "ea-name is too long, ea: %s, name-len: %d\n", name, nameLength);
    if (valueLength > GvMaximumEaValue)
        return GV_REFUSE(STATUS_INVALID_PARAMETER, "ea-value is too long, ea: %s, val-len: %d\n", name, valueLength);
    const ULONG size = GvEaRecordSize(nameLength, valueLength);
    if (list->Remaining < size) return GV_REFUSE(STATUS_BUFFER_OVERFLOW, "not enough room, ea: %s\n", name);
    UCHAR* const record = list->Cursor;
    WriteRecord(record, name, nameLength, value, valueLength);
    list->Remaining -= size;
    if (list->Previous) LinkRecord(list->Previous, record);
    list->Previous = record;

    // A record that leaves not one byte behind its alignment is in the list, and yet ends it.
    const ULONG padding = GvEaPadding(size);
    if (list->Remaining <= padding) return GV_REFUSE(STATUS_BUFFER_OVERFLOW, "output buf too small\n");
    list->Cursor += size + padding;
    list->Remaining -= padding;
    return STATUS_SUCCESS;
}
