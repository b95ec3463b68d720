// Reading, writing and sizing files. Takes Node.Lock, shared to read and exclusive for the rest, so that different
// files never wait for each other and readers of one file do not either. A write is whole or not at all, but for a
// buffer that goes bad on the way: then old bytes may be lost, and the size stays.

#include "ops.h"

#include "guardedcopy.h"
#include "locks.h"

namespace memfs {
namespace {

NTSTATUS ResolveFile(void* context, PluginFd fd, Node** node)
{
    const NTSTATUS status = HandleResolve(VolumeOf(context)->Handles, fd, node);
    return NT_SUCCESS(status) ? NodeExpect(*node, NodeKind::File) : status;
}

NTSTATUS ReadLocked(Node* node, ULONGLONG offset, ULONG* length, void* buffer)
{
    SharedLock lock(node->Lock);
    const ULONGLONG end = static_cast<ULONGLONG>(node->Info.EndOfFile);
    if (offset >= end) return STATUS_END_OF_FILE;
    const ULONG count = *length < end - offset ? *length : static_cast<ULONG>(end - offset);
    if (!DataCopyOut(node->Data, offset, count, buffer)) return STATUS_ACCESS_VIOLATION;
    *length = count;
    return STATUS_SUCCESS;
}

NTSTATUS CommitAndCopy(Node* node, ULONGLONG offset, ULONG length, const void* buffer)
{
    const NTSTATUS status = DataCommit(node->Data, offset, offset + length);
    if (!NT_SUCCESS(status)) return status;
    return DataCopyIn(node->Data, offset, length, buffer) ? STATUS_SUCCESS : STATUS_ACCESS_VIOLATION;
}

NTSTATUS WriteLocked(Node* node, ULONGLONG offset, ULONG length, const void* buffer)
{
    ExclusiveLock lock(node->Lock);
    const ULONGLONG oldEnd = static_cast<ULONGLONG>(node->Info.EndOfFile);
    const ULONGLONG oldAllocation = static_cast<ULONGLONG>(node->Info.AllocationSize);
    const ULONGLONG end = offset + length;
    // The space is charged before the memory is taken, and nobody sees the new end before the bytes are there.
    NTSTATUS status = NodeResize(node, oldEnd, end > oldAllocation ? end : oldAllocation);
    if (!NT_SUCCESS(status)) return status;
    status = CommitAndCopy(node, offset, length, buffer);
    if (!NT_SUCCESS(status)) {
        DataTrim(node->Data, oldEnd);
        (void)NodeResize(node, oldEnd, oldAllocation); // gives back, which never fails
        return status;
    }
    if (end > oldEnd) (void)NodeResize(node, end, end > oldAllocation ? end : oldAllocation); // charged already
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS NTAPI Read(void* context, PKEVENT, PluginFd fd, LONGLONG offset, ULONG* length, void* buffer)
{
    NodeRef node;
    if (const NTSTATUS status = ResolveFile(context, fd, node.Out()); !NT_SUCCESS(status)) return status;
    if (offset < 0) return STATUS_INVALID_PARAMETER;
    if (*length == 0) return STATUS_SUCCESS;
    if (!TouchBuffer(buffer, *length)) return STATUS_ACCESS_VIOLATION;
    return ReadLocked(node.Get(), static_cast<ULONGLONG>(offset), length, buffer);
}

NTSTATUS NTAPI Write(void* context, PKEVENT, PluginFd fd, LONGLONG offset, ULONG* length, const void* buffer)
{
    NodeRef node;
    if (const NTSTATUS status = ResolveFile(context, fd, node.Out()); !NT_SUCCESS(status)) return status;
    if (offset < 0) return STATUS_INVALID_PARAMETER;
    if (*length == 0) return STATUS_SUCCESS;
    if (!TouchBuffer(buffer, *length)) return STATUS_ACCESS_VIOLATION;
    const NTSTATUS status = WriteLocked(node.Get(), static_cast<ULONGLONG>(offset), *length, buffer);
    if (NT_SUCCESS(status)) NodeTouch(node.Get(), Touched::Content);
    return status;
}

NTSTATUS NTAPI SetFileSize(void* context, PKEVENT, PluginFd fd, LONGLONG* fileSize, const LONGLONG* allocationSize)
{
    NodeRef node;
    if (const NTSTATUS status = ResolveFile(context, fd, node.Out()); !NT_SUCCESS(status)) return status;
    if (*fileSize < 0 || *allocationSize < 0) return STATUS_INVALID_PARAMETER;
    bool sizeChanges;
    {
        ExclusiveLock lock(node->Lock);
        sizeChanges = node->Info.EndOfFile != *fileSize;
        const NTSTATUS status =
            NodeResize(node.Get(), static_cast<ULONGLONG>(*fileSize), static_cast<ULONGLONG>(*allocationSize));
        if (!NT_SUCCESS(status)) return status;
    }
    NodeTouch(node.Get(), sizeChanges ? Touched::Content : Touched::Attributes);
    return STATUS_SUCCESS;
}

// Memory is all the storage there is, so a flush is done when the handle is good.
NTSTATUS NTAPI FlushFile(void* context, PKEVENT, PluginFd fd)
{
    NodeRef node;
    return HandleResolve(VolumeOf(context)->Handles, fd, node.Out());
}

NTSTATUS NTAPI FlushVol(void*, PKEVENT) { return STATUS_SUCCESS; }

} // namespace memfs
