// Nodes: creation, references, and the file information with its times. InfoLock is taken and released inside each
// routine; whoever needs Lock or the tree lock holds it already. The tree itself is directory.cpp's.

#include "node.h"

#include "ea.h"
#include "locks.h"
#include "names.h"
#include "volume.h"

namespace memfs {
namespace {

constexpr ULONG kSettableAttributes =
    FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE;
static_assert((kSettableAttributes | FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT) == GVND_ATTRIBUTE_MASK);

LONGLONG Now()
{
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    return now.QuadPart;
}

void InitializeInfo(Node* node)
{
    PluginFileInfo& info = node->Info;
    info.CreationTime = info.LastAccessTime = info.LastWriteTime = info.ChangeTime = Now();
    info.FileAttributes = node->Kind == NodeKind::Directory ? FILE_ATTRIBUTE_DIRECTORY : 0;
    info.FileId = static_cast<ULONGLONG>(InterlockedIncrement64(&node->Volume->LastFileId));
}

void Destroy(Node* node)
{
    DataTrim(node->Data, 0);
    EaFreeAll(node);
    // Giving back never fails.
    (void)VolumeCharge(node->Volume, static_cast<ULONGLONG>(node->Info.AllocationSize), 0);
    ExDeleteResourceLite(&node->Lock);
    Free(node->Name.Buffer);
    Free(node);
}

ULONGLONG RoundToUnit(ULONGLONG bytes) { return (bytes + kAllocationUnit - 1) / kAllocationUnit * kAllocationUnit; }

} // namespace

NTSTATUS NodeCreate(MemFs* volume, const UNICODE_STRING& name, NodeKind kind, Node** node)
{
    Block<Node> made(Allocate<Node>(NonPagedPoolNx));
    if (!made) return STATUS_INSUFFICIENT_RESOURCES;
    made->Volume = volume;
    made->Kind = kind;
    made->References = 1;
    KeInitializeSpinLock(&made->InfoLock);
    if (const NTSTATUS status = CopyName(name, &made->Name); !NT_SUCCESS(status)) return status;
    if (const NTSTATUS status = ExInitializeResourceLite(&made->Lock); !NT_SUCCESS(status)) {
        Free(made->Name.Buffer);
        return status;
    }
    InitializeInfo(made.Get());
    *node = made.Release();
    return STATUS_SUCCESS;
}

void NodeReference(Node* node) { InterlockedIncrement(&node->References); }

void NodeRelease(Node* node)
{
    if (InterlockedDecrement(&node->References) == 0) Destroy(node);
}

PluginFileInfo NodeInfo(Node* node)
{
    SpinLock lock(node->InfoLock);
    return node->Info;
}

bool NodeIsReadOnlyFile(Node* node)
{
    return node->Kind == NodeKind::File && (NodeInfo(node).FileAttributes & FILE_ATTRIBUTE_READONLY);
}

NTSTATUS NodeExpect(const Node* node, NodeKind kind)
{
    if (node->Kind == kind) return STATUS_SUCCESS;
    return kind == NodeKind::File ? STATUS_FILE_IS_A_DIRECTORY : STATUS_NOT_A_DIRECTORY;
}

void NodeTouch(Node* node, Touched what)
{
    const LONGLONG now = Now();
    SpinLock lock(node->InfoLock);
    node->Info.ChangeTime = now;
    if (what == Touched::Content) node->Info.LastWriteTime = now;
}

void NodeSetAttributes(Node* node, ULONG attributes)
{
    const LONGLONG now = Now();
    SpinLock lock(node->InfoLock);
    ULONG& current = node->Info.FileAttributes;
    current = (current & ~kSettableAttributes) | (attributes & kSettableAttributes);
    node->Info.ChangeTime = now;
}

void NodeSetLink(Node* node, IsLink isLink)
{
    SpinLock lock(node->InfoLock);
    ULONG& current = node->Info.FileAttributes;
    current &= ~static_cast<ULONG>(FILE_ATTRIBUTE_REPARSE_POINT);
    if (isLink == IsLink::Yes) current |= FILE_ATTRIBUTE_REPARSE_POINT;
}

NTSTATUS NodeResize(Node* node, ULONGLONG endOfFile, ULONGLONG allocation)
{
    const ULONGLONG oldEnd = static_cast<ULONGLONG>(node->Info.EndOfFile);
    const ULONGLONG oldAllocation = static_cast<ULONGLONG>(node->Info.AllocationSize);
    const ULONGLONG wanted = endOfFile > allocation ? endOfFile : allocation;
    if (wanted > node->Volume->Capacity) return STATUS_DISK_FULL; // before rounding could overflow
    const ULONGLONG rounded = RoundToUnit(wanted);
    if (const NTSTATUS status = VolumeCharge(node->Volume, oldAllocation, rounded); !NT_SUCCESS(status)) return status;
    if (endOfFile < oldEnd) DataTrim(node->Data, endOfFile);

    SpinLock lock(node->InfoLock);
    node->Info.EndOfFile = static_cast<LONGLONG>(endOfFile);
    node->Info.AllocationSize = static_cast<LONGLONG>(rounded);
    return STATUS_SUCCESS;
}

} // namespace memfs
