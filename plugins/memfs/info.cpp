// Attributes, times and the volume record. Relies on Node.InfoLock, taken in node.cpp and here, and on MemFs.Lock.

#include "ops.h"

#include "locks.h"

namespace memfs {
namespace {

void SetUnlessZero(LONGLONG* time, LONGLONG value)
{
    if (value != 0) *time = value;
}

struct VolumeState {
    ULONGLONG UsedBytes;
    ULONG LabelCharacters;
    WCHAR Label[kMaxLabelCharacters];
};

// On the side, since paged memory may not be touched under the spin lock.
void CaptureState(MemFs* volume, VolumeState* state)
{
    SpinLock lock(volume->Lock);
    state->UsedBytes = volume->UsedBytes;
    state->LabelCharacters = volume->LabelCharacters;
    RtlCopyMemory(state->Label, volume->Label, sizeof(state->Label));
}

} // namespace

NTSTATUS AllocateInfo(Node* node, PluginFileInfo** info)
{
    PluginFileInfo* const made = Allocate<PluginFileInfo>(PagedPool);
    if (!made) return STATUS_INSUFFICIENT_RESOURCES;
    *made = NodeInfo(node);
    *info = made;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI GetInfo(void* context, PKEVENT, PluginFd fd, PluginFileInfo** info)
{
    NodeRef node;
    *info = nullptr;
    const NTSTATUS status = HandleResolve(VolumeOf(context)->Handles, fd, node.Out());
    return NT_SUCCESS(status) ? AllocateInfo(node.Get(), info) : status;
}

NTSTATUS NTAPI SetAttr(void* context, PKEVENT, PluginFd fd, ULONG attributes)
{
    NodeRef node;
    const NTSTATUS status = HandleResolve(VolumeOf(context)->Handles, fd, node.Out());
    if (NT_SUCCESS(status)) NodeSetAttributes(node.Get(), attributes);
    return status;
}

NTSTATUS NTAPI SetTime(void* context, PKEVENT, PluginFd fd, LONGLONG creation, LONGLONG lastAccess, LONGLONG lastWrite,
                       LONGLONG change)
{
    NodeRef node;
    const NTSTATUS status = HandleResolve(VolumeOf(context)->Handles, fd, node.Out());
    if (!NT_SUCCESS(status)) return status;
    SpinLock lock(node->InfoLock);
    SetUnlessZero(&node->Info.CreationTime, creation);
    SetUnlessZero(&node->Info.LastAccessTime, lastAccess);
    SetUnlessZero(&node->Info.LastWriteTime, lastWrite);
    SetUnlessZero(&node->Info.ChangeTime, change);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI GetVolInfo(void* context, PKEVENT, PluginVolInfo** info)
{
    MemFs* const volume = VolumeOf(context);
    VolumeState state;
    CaptureState(volume, &state);
    const ULONG labelBytes = state.LabelCharacters * static_cast<ULONG>(sizeof(WCHAR));
    PluginVolInfo* const made = Allocate<PluginVolInfo>(PagedPool, sizeof(PluginVolInfo) + labelBytes);
    *info = made;
    if (!made) return STATUS_INSUFFICIENT_RESOURCES;
    made->VolumeCreationTime = volume->CreationTime;
    made->VolumeSerialNumber = volume->SerialNumber;
    made->TotalAllocationUnits = volume->Capacity / kAllocationUnit;
    made->AvailableAllocationUnits = (volume->Capacity - state.UsedBytes) / kAllocationUnit;
    made->SectorsPerAllocationUnit = kAllocationUnit;
    made->BytesPerSector = 1;
    made->VolumeLabelLength = labelBytes;
    RtlCopyMemory(made->VolumeLabel, state.Label, labelBytes);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI SetVolLabel(void* context, PKEVENT, PCUNICODE_STRING label)
{
    return VolumeSetLabel(VolumeOf(context), *label);
}

} // namespace memfs
