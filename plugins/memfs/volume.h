// The volume: its table, its locks and what belongs to no single file.
#pragma once

#include "handles.h"
#include "node.h"

namespace memfs {

constexpr ULONG kAllocationUnit = 4096;
constexpr ULONG kMaxLabelCharacters = 32;

struct MemFs {
    PluginOps Ops;

    // Constant after creation.
    ULONGLONG Capacity; // bytes, whole allocation units
    LONGLONG CreationTime;
    ULONG SerialNumber;
    Node* Root; // holds a reference

    KEVENT Unmounted;

    // Who is where and is called what: the tree fields of all nodes.
    ERESOURCE TreeLock;

    volatile LONG64 LastFileId;

    // Under SpinLock.
    KSPIN_LOCK Lock;
    ULONGLONG UsedBytes; // the allocation sizes of all nodes, unlinked ones included
    ULONG LabelCharacters;
    WCHAR Label[kMaxLabelCharacters];

    HandleTable Handles; // has its own lock
};

inline MemFs* VolumeOf(void* context) { return static_cast<MemFs*>(context); }

// Replaces a charge of `before` bytes by one of `after`. STATUS_DISK_FULL, with nothing changed, if that does not fit.
[[nodiscard]] NTSTATUS VolumeCharge(MemFs* volume, ULONGLONG before, ULONGLONG after);
[[nodiscard]] NTSTATUS VolumeSetLabel(MemFs* volume, const UNICODE_STRING& label);

} // namespace memfs
