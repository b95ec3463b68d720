// The open handles of a volume. A handle is the number of a slot and the count of the slot's uses, so that one that has
// been closed, or never was one, is recognised. The table's spin lock is a leaf.
#pragma once

#include "node.h"

namespace memfs {

struct HandleSlot {
    Node* Target; // holds a reference; null in a free slot
    ULONG Use;    // how often the slot has been given back
    ULONG NextFree;
};

struct HandleTable {
    KSPIN_LOCK Lock;
    HandleSlot* Slots; // non-paged
    ULONG Size;
    ULONG FirstFree; // index + 1; 0 for none
};

void HandlesInitialize(HandleTable& table);
// The handle takes a reference of its own.
[[nodiscard]] NTSTATUS HandleOpen(HandleTable& table, Node* node, PluginFd* fd);
// The node with a reference for the caller. STATUS_INVALID_HANDLE.
[[nodiscard]] NTSTATUS HandleResolve(HandleTable& table, PluginFd fd, Node** node);
[[nodiscard]] NTSTATUS HandleClose(HandleTable& table, PluginFd fd);
// Closes all that are open and frees the table.
void HandlesDestroy(HandleTable& table);

} // namespace memfs
