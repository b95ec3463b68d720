// The system event log, for the one failure that an administrator must be able to find: a driver that cannot start.

#include "entry/entry.h"

void GvLogDriverError(NTSTATUS errorCode, PDRIVER_OBJECT driver, ULONG uniqueErrorValue)
{
    if (KeGetCurrentIrql() > DISPATCH_LEVEL) return;

    constexpr UCHAR kEntrySize = sizeof(IO_ERROR_LOG_PACKET);
    static_assert(kEntrySize == 48);
    auto* packet = static_cast<IO_ERROR_LOG_PACKET*>(IoAllocateErrorLogEntry(driver, kEntrySize));
    if (!packet) {
        DbgPrint("IoAllocateErrorLogEntry Error\n");
        return;
    }
    RtlZeroMemory(packet, kEntrySize);
    packet->EventCategory = 2;
    packet->ErrorCode = errorCode;
    packet->UniqueErrorValue = uniqueErrorValue;
    IoWriteErrorLogEntry(packet);
}
