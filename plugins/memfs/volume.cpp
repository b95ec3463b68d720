// A volume's beginning and end, its space and its label. MemFs.Lock is taken inside; creation and destruction need
// none, for nobody else knows the volume then.

#include "volume.h"

#include "directory.h"
#include "locks.h"
#include <gvnd/memfs.h>
#include "ops.h"

namespace memfs {
namespace {

constexpr ULONGLONG kDefaultCapacity = 1ull << 30;
constexpr ULONGLONG kLargestCapacity = 1ull << 46; // the chunk numbers of a file stay within 32 bits

VOID NTAPI OnUnmounted(void* context) { KeSetEvent(&VolumeOf(context)->Unmounted, IO_NO_INCREMENT, FALSE); }

void FillTable(PluginOps* ops, MemFs* volume)
{
    ops->Version = GVND_PLUGIN_VERSION;
    ops->PluginContext = volume;
    ops->OnUnmounted = OnUnmounted;
    ops->GetNormalizedPath = GetNormalizedPath;
    ops->AccessCheck = AccessCheck;
    ops->Lookup = Lookup;
    ops->Open = Open;
    ops->OpenDir = OpenDir;
    ops->Create = Create;
    ops->CreateDir = CreateDir;
    ops->Read = Read;
    ops->Write = Write;
    ops->ReadDirEntry = ReadDirEntry;
    ops->GetInfo = GetInfo;
    ops->SetFileSize = SetFileSize;
    ops->SetAttr = SetAttr;
    ops->SetTime = SetTime;
    ops->GetVolInfo = GetVolInfo;
    ops->SetVolLabel = SetVolLabel;
    ops->Close = Close;
    ops->Rename = Rename;
    ops->Delete = Delete;
    ops->FlushVol = FlushVol;
    ops->FlushFile = FlushFile;
    ops->ListEa = ListEa;
    ops->GetEa = GetEa;
    ops->SetEa = SetEa;
    ops->DeleteEa = DeleteEa;
    ops->ReadLink = ReadLink;
}

// False for a capacity out of range.
bool SetCapacity(MemFs* volume, ULONGLONG wanted)
{
    const ULONGLONG bytes = wanted == 0 ? kDefaultCapacity : wanted;
    volume->Capacity = bytes / kAllocationUnit * kAllocationUnit;
    return volume->Capacity != 0 && bytes <= kLargestCapacity;
}

NTSTATUS Configure(MemFs* volume, const MemFsOptions& options)
{
    if (!SetCapacity(volume, options.CapacityBytes)) return STATUS_INVALID_PARAMETER;
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    volume->CreationTime = now.QuadPart;
    volume->SerialNumber = options.SerialNumber != 0 ? options.SerialNumber : now.u.LowPart;
    return options.Label ? VolumeSetLabel(volume, *options.Label) : STATUS_SUCCESS;
}

NTSTATUS CreateRoot(MemFs* volume)
{
    WCHAR text[] = {'\\'};
    return NodeCreate(volume, {sizeof(text), sizeof(text), text}, NodeKind::Directory, &volume->Root);
}

// Goes down and up again by Parent, since directories may be nested deeper than any stack.
void ReleaseTree(Node* root)
{
    Node* node = root;
    while (node) {
        if (Node* const child = DirectoryTakeAny(node)) {
            node = child;
            continue;
        }
        Node* const parent = node->Parent;
        NodeRelease(node);
        node = parent;
    }
}

} // namespace

NTSTATUS VolumeCharge(MemFs* volume, ULONGLONG before, ULONGLONG after)
{
    SpinLock lock(volume->Lock);
    const ULONGLONG others = volume->UsedBytes - before;
    if (after > before && after > volume->Capacity - others) return STATUS_DISK_FULL;
    volume->UsedBytes = others + after;
    return STATUS_SUCCESS;
}

NTSTATUS VolumeSetLabel(MemFs* volume, const UNICODE_STRING& label)
{
    if (label.Length > sizeof(volume->Label)) return STATUS_INVALID_VOLUME_LABEL;
    WCHAR text[kMaxLabelCharacters] = {};
    RtlCopyMemory(text, label.Buffer, label.Length); // the caller's text may be paged
    SpinLock lock(volume->Lock);
    volume->LabelCharacters = label.Length / sizeof(WCHAR);
    RtlCopyMemory(volume->Label, text, sizeof(text));
    return STATUS_SUCCESS;
}

} // namespace memfs

using namespace memfs;

NTSTATUS NTAPI MemFsCreate(const MemFsOptions* options, PluginOps** ops)
{
    *ops = nullptr;
    Block<MemFs> volume(Allocate<MemFs>(NonPagedPoolNx));
    if (!volume) return STATUS_INSUFFICIENT_RESOURCES;
    KeInitializeSpinLock(&volume->Lock);
    KeInitializeEvent(&volume->Unmounted, NotificationEvent, FALSE);
    HandlesInitialize(volume->Handles);
    const MemFsOptions defaults = {};
    NTSTATUS status = Configure(volume.Get(), options ? *options : defaults);
    if (!NT_SUCCESS(status)) return status;
    if (status = CreateRoot(volume.Get()); !NT_SUCCESS(status)) return status;
    if (status = ExInitializeResourceLite(&volume->TreeLock); !NT_SUCCESS(status)) {
        NodeRelease(volume->Root);
        return status;
    }
    FillTable(&volume->Ops, volume.Get());
    *ops = &volume.Release()->Ops;
    return STATUS_SUCCESS;
}

VOID NTAPI MemFsWaitUntilUnmounted(PluginOps* ops)
{
    MemFs* const volume = CONTAINING_RECORD(ops, MemFs, Ops);
    KeWaitForSingleObject(&volume->Unmounted, Executive, KernelMode, FALSE, nullptr);
}

VOID NTAPI MemFsDestroy(PluginOps* ops)
{
    MemFs* const volume = CONTAINING_RECORD(ops, MemFs, Ops);
    HandlesDestroy(volume->Handles);
    ReleaseTree(volume->Root);
    ExDeleteResourceLite(&volume->TreeLock);
    Free(volume);
}
