// The handle table. Relies on HandleTable.Lock, taken inside; nodes are released outside of it, since the end of a node
// frees paged memory.

#include "handles.h"

#include "locks.h"

namespace memfs {
namespace {

constexpr ULONG kFirstSize = 32;
constexpr ULONG kLargestSize = 1u << 28;

PluginFd MakeFd(ULONG index, ULONG use)
{
    return static_cast<PluginFd>(use) << 32 | (index + 1); // the 1 keeps the first handle of all from being 0
}

// Null unless the handle is open. Under Lock.
HandleSlot* FindSlot(HandleTable& table, PluginFd fd)
{
    const ULONG index = static_cast<ULONG>(fd) - 1; // 0 becomes an index that no table has
    if (index >= table.Size) return nullptr;
    HandleSlot& slot = table.Slots[index];
    return slot.Target && slot.Use == static_cast<ULONG>(fd >> 32) ? &slot : nullptr;
}

void AddFreeSlots(HandleTable& table, HandleSlot* slots, ULONG size)
{
    for (ULONG index = size; index > table.Size; --index) {
        slots[index - 1].NextFree = table.FirstFree;
        table.FirstFree = index;
    }
}

// Under Lock; non-paged pool may be had at its level.
NTSTATUS Grow(HandleTable& table)
{
    const ULONG size = table.Size == 0 ? kFirstSize : table.Size * 2;
    if (size > kLargestSize) return STATUS_TOO_MANY_OPENED_FILES;
    HandleSlot* const slots = Allocate<HandleSlot>(NonPagedPoolNx, sizeof(HandleSlot) * static_cast<SIZE_T>(size));
    if (!slots) return STATUS_INSUFFICIENT_RESOURCES;
    if (table.Slots) RtlCopyMemory(slots, table.Slots, sizeof(HandleSlot) * static_cast<SIZE_T>(table.Size));
    AddFreeSlots(table, slots, size);
    Free(table.Slots);
    table.Slots = slots;
    table.Size = size;
    return STATUS_SUCCESS;
}

} // namespace

void HandlesInitialize(HandleTable& table) { KeInitializeSpinLock(&table.Lock); }

NTSTATUS HandleOpen(HandleTable& table, Node* node, PluginFd* fd)
{
    SpinLock lock(table.Lock);
    if (table.FirstFree == 0) {
        if (const NTSTATUS status = Grow(table); !NT_SUCCESS(status)) return status;
    }
    const ULONG index = table.FirstFree - 1;
    HandleSlot& slot = table.Slots[index];
    table.FirstFree = slot.NextFree;
    NodeReference(node);
    slot.Target = node;
    *fd = MakeFd(index, slot.Use);
    return STATUS_SUCCESS;
}

NTSTATUS HandleResolve(HandleTable& table, PluginFd fd, Node** node)
{
    SpinLock lock(table.Lock);
    HandleSlot* const slot = FindSlot(table, fd);
    if (!slot) return STATUS_INVALID_HANDLE;
    NodeReference(slot->Target);
    *node = slot->Target;
    return STATUS_SUCCESS;
}

NTSTATUS HandleClose(HandleTable& table, PluginFd fd)
{
    NodeRef node; // released after the lock
    SpinLock lock(table.Lock);
    HandleSlot* const slot = FindSlot(table, fd);
    if (!slot) return STATUS_INVALID_HANDLE;
    *node.Out() = slot->Target;
    slot->Target = nullptr;
    ++slot->Use;
    slot->NextFree = table.FirstFree;
    table.FirstFree = static_cast<ULONG>(fd);
    return STATUS_SUCCESS;
}

void HandlesDestroy(HandleTable& table)
{
    for (ULONG index = 0; index < table.Size; ++index) {
        if (table.Slots[index].Target) NodeRelease(table.Slots[index].Target);
    }
    Free(table.Slots);
    table.Slots = nullptr;
    table.Size = table.FirstFree = 0;
}

} // namespace memfs
