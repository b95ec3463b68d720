// Memory of requests. Free records are kept per thread in release builds, since every request takes one; with checks on
// they go through a queue, so that a request touched after its end is found and not a stranger's. The registry of all
// records is under its own lock; records are made rarely and never given back.
#include "io/irp.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include <nthost/check.h>
#include <nthost/faults.h>

#include "check/text.h"
#include "ke/thread.h"
#include "ke/word_lock.h"

#if defined(__SANITIZE_ADDRESS__)
#define NTHOST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define NTHOST_ASAN 1
#endif
#endif
#ifdef NTHOST_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace nthost::io {

namespace {

constexpr int UsualCapacity = 4;
constexpr unsigned Quarantine = 128; // freed records that rest before one is used again, with checks on
constexpr unsigned ThreadCacheSize = 16;

ke::WordLock g_lock;
std::vector<IrpRecord*>& Registry()
{
    static auto* const registry = new std::vector<IrpRecord*>; // outlives every thread
    return *registry;
}

// Under g_lock. Oldest first.
IrpRecord* g_freeHead;
IrpRecord* g_freeTail;
unsigned g_freeCount;

size_t PacketSize(int capacity) { return sizeof(IRP) + static_cast<size_t>(capacity) * sizeof(IO_STACK_LOCATION); }

void SealPacket([[maybe_unused]] IrpRecord* record)
{
#ifdef NTHOST_ASAN
    __asan_poison_memory_region(&record->Irp, PacketSize(record->Capacity));
#elif NTHOST_CHECKS
    memset(static_cast<void*>(&record->Irp), 0xdd, PacketSize(record->Capacity));
#endif
}

void OpenPacket([[maybe_unused]] IrpRecord* record)
{
#ifdef NTHOST_ASAN
    __asan_unpoison_memory_region(&record->Irp, PacketSize(record->Capacity));
#endif
}

IrpRecord* NewRecord(int capacity)
{
    void* const memory = calloc(1, offsetof(IrpRecord, Irp) + PacketSize(capacity));
    if (!memory) return nullptr;
    auto* const record = new (memory) IrpRecord{};
    record->Capacity = capacity;
    const std::lock_guard hold(g_lock);
    Registry().push_back(record);
    return record;
}

void PutOnSharedList(IrpRecord* record)
{
    const std::lock_guard hold(g_lock);
    record->NextFree = nullptr;
    (g_freeTail ? g_freeTail->NextFree : g_freeHead) = record;
    g_freeTail = record;
    ++g_freeCount;
}

IrpRecord* TakeFromSharedList(int capacity)
{
    const std::lock_guard hold(g_lock);
    if (NTHOST_CHECKS && g_freeCount <= Quarantine) return nullptr;
    IrpRecord* before = nullptr;
    IrpRecord* record = g_freeHead;
    while (record && record->Capacity < capacity) before = record, record = record->NextFree;
    if (!record) return nullptr;
    (before ? before->NextFree : g_freeHead) = record->NextFree;
    if (g_freeTail == record) g_freeTail = before;
    --g_freeCount;
    return record;
}

// Records that this thread freed last.
struct ThreadCache {
    IrpRecord* Records[ThreadCacheSize];
    unsigned Count = 0;
    ~ThreadCache()
    {
        while (Count) PutOnSharedList(Records[--Count]);
    }
};
thread_local ThreadCache t_cache;

void PutBack(IrpRecord* record)
{
    if (!NTHOST_CHECKS && record->Capacity == UsualCapacity && t_cache.Count < ThreadCacheSize)
        t_cache.Records[t_cache.Count++] = record;
    else
        PutOnSharedList(record);
}

IrpRecord* TakeRecord(int capacity)
{
    if (!NTHOST_CHECKS && capacity == UsualCapacity && t_cache.Count) return t_cache.Records[--t_cache.Count];
    IrpRecord* const record = TakeFromSharedList(capacity);
    return record ? record : NewRecord(capacity);
}

void PreparePacket(IrpRecord* record, CCHAR stackSize)
{
    OpenPacket(record);
    IRP* const irp = &record->Irp;
    memset(static_cast<void*>(irp), 0, PacketSize(stackSize));
    irp->Type = IO_TYPE_IRP;
    irp->Size = IoSizeOfIrp(stackSize);
    irp->StackCount = stackSize;
    irp->CurrentLocation = static_cast<CHAR>(stackSize + 1);
    irp->Tail.Overlay.CurrentStackLocation = reinterpret_cast<PIO_STACK_LOCATION>(irp + 1) + stackSize;
    InitializeListHead(&irp->ThreadListEntry);
    const _ETHREAD* const thread = ke::CurrentThreadOrNull();
    irp->ApcEnvironment = thread && thread->ActsFor != thread->Process;
}

void PrepareRecord(IrpRecord* record)
{
    record->How = Issue::ByDriver;
    record->Met.store(InDispatch, std::memory_order_relaxed);
    record->Requestor = nullptr;
    record->File = nullptr;
    record->FileEntry = {};
    record->OnThreadList = false;
    record->OnFileList = false;
    record->Device.store(nullptr, std::memory_order_relaxed);
    record->OutputLength = 0;
    record->Queue.store(nullptr, std::memory_order_relaxed);
    record->Holds.store(1, std::memory_order_relaxed);
    if (NTHOST_CHECKS) {
        for (LocationTrace& trace : record->Trace) {
            trace.Ended.store(0, std::memory_order_relaxed);
            trace.MarkedPending = trace.PassedDown = false;
        }
        CaptureStack(record->AllocatedAt);
    }
    record->State.store(IrpState::Live, std::memory_order_release);
}

PDEVICE_OBJECT DeviceOf(PIRP irp)
{
    return irp->CurrentLocation > irp->StackCount ? nullptr : IoGetCurrentIrpStackLocation(irp)->DeviceObject;
}

} // namespace

void HoldRecord(IrpRecord* record) { record->Holds.fetch_add(1, std::memory_order_relaxed); }

void ReleaseRecord(IrpRecord* record)
{
    if (record->Holds.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    SealPacket(record);
    PutBack(record);
}

LocationTrace* TraceOf(IrpRecord* record, int location)
{
    return location >= 1 && location <= TracedLocations ? &record->Trace[location - 1] : nullptr;
}

std::string DescribeIrp(PIRP irp)
{
    if (irp->CurrentLocation > irp->StackCount) return "irp " + HexText(irp);
    const IO_STACK_LOCATION* const location = IoGetCurrentIrpStackLocation(irp);
    return Format("irp %p, major 0x%02x minor 0x%02x, device %p, file %p", static_cast<void*>(irp),
                  location->MajorFunction, location->MinorFunction, static_cast<void*>(location->DeviceObject),
                  static_cast<void*>(location->FileObject));
}

std::vector<OutstandingIrp> OutstandingIrps(const std::vector<PDEVICE_OBJECT>* sentTo)
{
    const auto isMeant = [sentTo](const IrpRecord& record) {
        if (record.State.load(std::memory_order_acquire) == IrpState::Free) return false;
        PDEVICE_OBJECT const device = record.Device.load(std::memory_order_relaxed);
        return !sentTo || std::find(sentTo->begin(), sentTo->end(), device) != sentTo->end();
    };
    std::vector<OutstandingIrp> found;
    const std::lock_guard hold(g_lock);
    for (IrpRecord* record : Registry())
        if (isMeant(*record))
            found.push_back({DeviceOf(&record->Irp), DescribeIrp(&record->Irp),
                             NTHOST_CHECKS ? StackText(record->AllocatedAt) : ""});
    return found;
}

void AbandonOutstandingIrps()
{
    const std::lock_guard hold(g_lock);
    for (IrpRecord* record : Registry()) record->State.store(IrpState::Free, std::memory_order_release);
}

} // namespace nthost::io

using namespace nthost;
using namespace nthost::io;

PIRP NTAPI IoAllocateIrp(CCHAR StackSize, BOOLEAN)
{
    if (StackSize < 0 || FaultInjected("IoAllocateIrp")) return nullptr;
    IrpRecord* const record = TakeRecord(StackSize > UsualCapacity ? StackSize : UsualCapacity);
    if (!record) return nullptr;
    PreparePacket(record, StackSize);
    PrepareRecord(record);
    return &record->Irp;
}

VOID NTAPI IoFreeIrp(PIRP Irp)
{
    IrpRecord* const record = RecordOf(Irp);
    if (record->State.exchange(IrpState::Free, std::memory_order_acq_rel) == IrpState::Free) {
        ReportFinding("irp-freed-twice", "irp " + HexText(Irp));
        return;
    }
    ReleaseRecord(record);
}
