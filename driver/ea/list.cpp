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
    if (nameLength > GvMaximumEaName) {
        GV_TRACE(GvTraceError, "ea-name is too long, ea: %s, name-len: %d\n", name, nameLength);
        return STATUS_INVALID_PARAMETER;
    }
    if (valueLength > GvMaximumEaValue) {
        GV_TRACE(GvTraceError, "ea-value is too long, ea: %s, val-len: %d\n", name, valueLength);
        return STATUS_INVALID_PARAMETER;
    }
    const ULONG size = GvEaRecordSize(nameLength, valueLength);
    if (list->Remaining < size) {
        GV_TRACE(GvTraceError, "not enough room, ea: %s\n", name);
        return STATUS_BUFFER_OVERFLOW;
    }
    UCHAR* const record = list->Cursor;
    WriteRecord(record, name, nameLength, value, valueLength);
    list->Remaining -= size;
    if (list->Previous) LinkRecord(list->Previous, record);
    list->Previous = record;

    // A record that leaves not one byte behind its alignment is in the list, and yet ends it.
    const ULONG padding = GvEaPadding(size);
    if (list->Remaining <= padding) {
        GV_TRACE(GvTraceError, "output buf too small\n");
        return STATUS_BUFFER_OVERFLOW;
    }
    list->Cursor += size + padding;
    list->Remaining -= padding;
    return STATUS_SUCCESS;
}
