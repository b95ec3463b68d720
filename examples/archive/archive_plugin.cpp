// A plugin on another library: shows what is in a tar, zip, 7zip or cpio file, which nobody can change. The contents of
// a file are unpacked into memory with its first read, and go with its handle. It leans on the C++ library, so it is a
// shared object for the tool only.

#include <algorithm>
#include <mutex>
#include <unordered_map>

#include <gvnd/plugin_entry.h>

#include "index.h"

namespace {

using archive_plugin::Index;
using archive_plugin::Kind;
using archive_plugin::Node;
using archive_plugin::Text;
using archive_plugin::TextView;

constexpr ULONG kTag = 0x68637261; // "arch" in memory order

// An open object. Contents stay as they are once they are there, so reads copy from them without the lock: the caller's
// buffer may fault, and nothing may be held then.
struct Handle {
    const Node* Object = nullptr;
    std::mutex Lock;
    bool Unpacked = false; // under Lock
    std::vector<char> Contents;
};

struct Volume {
    PluginOps Ops; // first: the table's address is the volume's
    KEVENT Unmounted;
    Index Archive;
    std::mutex Lock;
    // Under Lock. Handles that are open at the unmount get no Close; they go with the volume.
    std::unordered_map<Handle*, std::unique_ptr<Handle>> Handles;
};

Volume* VolumeOf(void* context) { return static_cast<Volume*>(context); }
Handle* HandleOf(PluginFd fd) { return reinterpret_cast<Handle*>(fd); }

// What the driver gets by pointer is one block of pool memory, and the driver's to free.
template <typename T>
T* Allocate(size_t bytes)
{
    void* const block = ExAllocatePoolWithTag(PagedPool, bytes, kTag);
    if (block) RtlZeroMemory(block, bytes);
    return static_cast<T*>(block);
}

// A C++ exception must not leave an operation: the driver has none.
template <typename Body>
NTSTATUS WithoutExceptions(Body body)
{
    try {
        return body();
    } catch (const std::exception&) { // no memory, or a size that no memory can have
        return STATUS_INSUFFICIENT_RESOURCES;
    }
}

ULONG AttributesOf(const Node& node)
{
    ULONG attributes = node.ReadOnly ? FILE_ATTRIBUTE_READONLY : 0;
    if (node.Type == Kind::Directory) attributes |= FILE_ATTRIBUTE_DIRECTORY;
    if (node.Type == Kind::Link) attributes |= FILE_ATTRIBUTE_REPARSE_POINT;
    return attributes ? attributes : FILE_ATTRIBUTE_ARCHIVE;
}

// The fields that a file's record and a directory's entry have in common.
template <typename Record>
void Describe(const Node& node, Record* record)
{
    record->CreationTime = record->LastAccessTime = record->LastWriteTime = record->ChangeTime = node.Time;
    record->EndOfFile = record->AllocationSize = node.Size;
    record->FileAttributes = AttributesOf(node);
}

NTSTATUS MakeInfo(const Node& node, PluginFileInfo** info)
{
    auto* const made = Allocate<PluginFileInfo>(sizeof(PluginFileInfo));
    if (!made) return STATUS_INSUFFICIENT_RESOURCES;
    Describe(node, made);
    made->FileId = node.Id;
    *info = made;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI Lookup(void* context, PKEVENT, PCUNICODE_STRING path, PluginFileInfo** info, PluginAccessMask* maxAccess)
{
    return WithoutExceptions([&] {
        const Node* const node = VolumeOf(context)->Archive.Find(path);
        if (!node) return STATUS_OBJECT_NAME_NOT_FOUND;
        *maxAccess = GVND_ACCESS_READ | GVND_ACCESS_EXECUTE;
        return MakeInfo(*node, info);
    });
}

NTSTATUS NTAPI Open(void* context, PKEVENT, PCUNICODE_STRING path, PluginAccessMask, PluginFd* fd)
{
    return WithoutExceptions([&] {
        const Node* const node = VolumeOf(context)->Archive.Find(path);
        if (!node) return STATUS_OBJECT_NAME_NOT_FOUND;
        auto handle = std::make_unique<Handle>();
        handle->Object = node;
        Handle* const address = handle.get();
        const std::scoped_lock lock(VolumeOf(context)->Lock);
        VolumeOf(context)->Handles.emplace(address, std::move(handle));
        *fd = reinterpret_cast<PluginFd>(address);
        return STATUS_SUCCESS;
    });
}

NTSTATUS NTAPI Close(void* context, PKEVENT, PluginFd fd)
{
    const std::scoped_lock lock(VolumeOf(context)->Lock);
    VolumeOf(context)->Handles.erase(HandleOf(fd));
    return STATUS_SUCCESS;
}

NTSTATUS Unpack(const Index& archive, Handle* handle)
{
    const std::scoped_lock lock(handle->Lock);
    if (handle->Unpacked) return STATUS_SUCCESS;
    const NTSTATUS status = archive.Extract(*handle->Object, &handle->Contents);
    handle->Unpacked = NT_SUCCESS(status);
    return status;
}

NTSTATUS NTAPI Read(void* context, PKEVENT, PluginFd fd, LONGLONG offset, ULONG* length, void* buffer)
{
    Handle* const handle = HandleOf(fd);
    const LONGLONG size = handle->Object->Size;
    if (offset < 0 || offset >= size) return STATUS_END_OF_FILE;
    const NTSTATUS status = WithoutExceptions([&] { return Unpack(VolumeOf(context)->Archive, handle); });
    if (!NT_SUCCESS(status)) return status;
    *length = static_cast<ULONG>(std::min<LONGLONG>(*length, size - offset));
    RtlCopyMemory(buffer, handle->Contents.data() + offset, *length);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI GetInfo(void*, PKEVENT, PluginFd fd, PluginFileInfo** info)
{
    return MakeInfo(*HandleOf(fd)->Object, info);
}

NTSTATUS NTAPI ReadDirEntry(void*, PKEVENT, PluginFd fd, ULONG index, PluginDirEntry** entry)
{
    const Node& directory = *HandleOf(fd)->Object;
    if (index >= directory.Children.size()) return STATUS_NO_MORE_FILES;
    const Node& node = *directory.Children[index];
    const size_t bytes = node.Name.size() * sizeof(WCHAR);
    auto* const made = Allocate<PluginDirEntry>(sizeof(PluginDirEntry) + bytes);
    if (!made) return STATUS_INSUFFICIENT_RESOURCES;
    Describe(node, made);
    made->FileNameLength = static_cast<ULONG>(bytes);
    RtlCopyMemory(made->FileName, node.Name.data(), bytes);
    *entry = made;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ReadLink(void* context, PKEVENT, PCUNICODE_STRING path, PUNICODE_STRING* target, PUNICODE_STRING*)
{
    return WithoutExceptions([&] {
        const Node* const node = VolumeOf(context)->Archive.Find(path);
        Text text;
        if (!node || node->Type != Kind::Link || !Index::ResolveLink(*node, &text)) return STATUS_OBJECT_PATH_NOT_FOUND;
        const size_t bytes = text.size() * sizeof(WCHAR);
        if (bytes > MAXUSHORT) return STATUS_OBJECT_PATH_NOT_FOUND;
        auto* const made = Allocate<UNICODE_STRING>(sizeof(UNICODE_STRING) + bytes);
        if (!made) return STATUS_INSUFFICIENT_RESOURCES;
        made->Length = made->MaximumLength = static_cast<USHORT>(bytes);
        made->Buffer = reinterpret_cast<PWCH>(made + 1);
        RtlCopyMemory(made->Buffer, text.data(), bytes);
        *target = made;
        return STATUS_SUCCESS;
    });
}

NTSTATUS NTAPI GetVolInfo(void* context, PKEVENT, PluginVolInfo** info)
{
    auto* const made = Allocate<PluginVolInfo>(sizeof(PluginVolInfo));
    if (!made) return STATUS_INSUFFICIENT_RESOURCES;
    made->TotalAllocationUnits = VolumeOf(context)->Archive.TotalSize(); // and none is available: it is full
    made->SectorsPerAllocationUnit = made->BytesPerSector = 1;
    *info = made;
    return STATUS_SUCCESS;
}

VOID NTAPI OnUnmounted(void* context) { KeSetEvent(&VolumeOf(context)->Unmounted, IO_NO_INCREMENT, FALSE); }

NTSTATUS NTAPI CreateVolume(const char* arguments, PluginOps** ops)
{
    *ops = nullptr;
    if (!*arguments) return STATUS_INVALID_PARAMETER; // the archive's path is owed
    return WithoutExceptions([&] {
        auto volume = std::make_unique<Volume>();
        if (const NTSTATUS status = volume->Archive.Open(arguments); !NT_SUCCESS(status)) return status;
        KeInitializeEvent(&volume->Unmounted, NotificationEvent, FALSE);
        volume->Ops.Version = GVND_PLUGIN_VERSION;
        volume->Ops.PluginContext = volume.get();
        volume->Ops.OnUnmounted = OnUnmounted;
        volume->Ops.Lookup = Lookup;
        volume->Ops.Open = volume->Ops.OpenDir = Open;
        volume->Ops.Close = Close;
        volume->Ops.Read = Read;
        volume->Ops.ReadDirEntry = ReadDirEntry;
        volume->Ops.GetInfo = GetInfo;
        volume->Ops.GetVolInfo = GetVolInfo;
        volume->Ops.ReadLink = ReadLink;
        *ops = &volume.release()->Ops;
        return STATUS_SUCCESS;
    });
}

VOID NTAPI WaitUntilUnmounted(PluginOps* ops)
{
    KeWaitForSingleObject(&reinterpret_cast<Volume*>(ops)->Unmounted, Executive, KernelMode, FALSE, nullptr);
}

VOID NTAPI DestroyVolume(PluginOps* ops) { delete reinterpret_cast<Volume*>(ops); }

constexpr GvndPlugin kPlugin = {
    GVND_PLUGIN_ENTRY_VERSION,
    0,
    "archive",
    "a tar, zip, 7zip or cpio file, read-only",
    "FILE",
    CreateVolume,
    WaitUntilUnmounted,
    DestroyVolume,
};

} // namespace

extern "C" const GvndPlugin* GvndGetPlugin(VOID) { return &kPlugin; }
