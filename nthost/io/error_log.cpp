// Error log entries: allocated on behalf of a driver or device, filled by the driver, kept by the system. The log has
// its own lock, which a writer at DISPATCH_LEVEL may take.
#include <nthost/error_log.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <utility>

#include <nthost/check.h>
#include <nthost/debug.h>
#include <nthost/faults.h>

#include "io/device.h"
#include "ke/thread.h"
#include "ke/word_lock.h"

namespace nthost {

namespace {

ke::WordLock g_lock;
std::vector<ErrorLogEntry> g_entries;

// In front of the packet that the driver fills.
struct alignas(16) PendingEntry {
    void* Object; // referenced
    UCHAR Size;
};

PendingEntry* PendingOf(PVOID packet) { return static_cast<PendingEntry*>(packet) - 1; }

ErrorLogEntry EntryOf(const PendingEntry* pending)
{
    ErrorLogEntry entry;
    void* const object = pending->Object;
    const bool isDevice = ob::TypeOf(object) == &io::DeviceType;
    void* const driver = isDevice ? static_cast<PDEVICE_OBJECT>(object)->DriverObject : object;
    entry.Driver = ToUtf8(&static_cast<PDRIVER_OBJECT>(driver)->DriverName);
    if (isDevice) entry.Device = ob::NameText(object);
    const auto* const packet = reinterpret_cast<const unsigned char*>(pending + 1);
    entry.Packet.assign(packet, packet + pending->Size);
    return entry;
}

bool MayAllocate(UCHAR size) { return size >= sizeof(IO_ERROR_LOG_PACKET) && size <= ERROR_LOG_MAXIMUM_SIZE; }

} // namespace

IO_ERROR_LOG_PACKET ErrorLogEntry::Header() const
{
    IO_ERROR_LOG_PACKET header;
    memcpy(&header, Packet.data(), sizeof(header));
    return header;
}

std::vector<ErrorLogEntry> TakeErrorLog()
{
    const std::lock_guard hold(g_lock);
    return std::exchange(g_entries, {});
}

} // namespace nthost

using namespace nthost;

PVOID NTAPI IoAllocateErrorLogEntry(PVOID IoObject, UCHAR EntrySize)
{
    if (NTHOST_CHECKS && KeGetCurrentIrql() > DISPATCH_LEVEL)
        ReportFinding("error-log-above-dispatch-level", "IoAllocateErrorLogEntry");
    if (!IoObject || !MayAllocate(EntrySize) || FaultInjected("IoAllocateErrorLogEntry")) return nullptr;
    auto* const pending = static_cast<PendingEntry*>(calloc(1, sizeof(PendingEntry) + EntrySize));
    if (!pending) return nullptr;
    ObReferenceObject(IoObject);
    pending->Object = IoObject;
    pending->Size = EntrySize;
    return pending + 1;
}

VOID NTAPI IoWriteErrorLogEntry(PVOID ElEntry)
{
    ErrorLogEntry entry = EntryOf(PendingOf(ElEntry));
    {
        const std::lock_guard hold(g_lock);
        g_entries.push_back(std::move(entry));
    }
    IoFreeErrorLogEntry(ElEntry);
}

VOID NTAPI IoFreeErrorLogEntry(PVOID ElEntry)
{
    PendingEntry* const pending = PendingOf(ElEntry);
    ObDereferenceObject(pending->Object);
    free(pending);
}
