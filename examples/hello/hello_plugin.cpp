// A whole plugin: one read-only file. Everything here is constant, so the operations need no lock.
#include <gvnd/plugin_entry.h>

namespace {

constexpr ULONG kTag = 0x6c6c6568; // "hell" in memory order
constexpr char kContents[] = "Hello, volume.\n";
constexpr ULONG kSize = sizeof(kContents) - 1;
constexpr WCHAR kName[] = L"hello.txt";
constexpr ULONG kNameBytes = sizeof(kName) - sizeof(WCHAR);
constexpr LONGLONG kTime = 133'000'000'000'000'000; // June 2022

// A handle says which of the two objects it is; 0 would mean that there is none.
constexpr PluginFd kRoot = 1;
constexpr PluginFd kFile = 2;

struct Volume {
    PluginOps Ops; // first: the table's address is the volume's
    KEVENT Unmounted;
};

// What the driver gets by pointer is one block of pool memory, and the driver's to free.
void* Allocate(SIZE_T bytes)
{
    void* const block = ExAllocatePoolWithTag(PagedPool, bytes, kTag);
    if (block) RtlZeroMemory(block, bytes);
    return block;
}

NTSTATUS Find(PCUNICODE_STRING path, PluginFd* fd)
{
    UNICODE_STRING root, file;
    RtlInitUnicodeString(&root, L"\\");
    RtlInitUnicodeString(&file, L"\\hello.txt");
    // The spelling is the caller's: whether case counts is for the plugin to say.
    *fd = RtlEqualUnicodeString(path, &root, TRUE) ? kRoot : RtlEqualUnicodeString(path, &file, TRUE) ? kFile : 0;
    return *fd ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
}

NTSTATUS NTAPI GetInfo(void*, PKEVENT, PluginFd fd, PluginFileInfo** info)
{
    auto* const made = static_cast<PluginFileInfo*>(Allocate(sizeof(PluginFileInfo)));
    if (!made) return STATUS_INSUFFICIENT_RESOURCES;
    made->CreationTime = made->LastAccessTime = made->LastWriteTime = made->ChangeTime = kTime;
    made->EndOfFile = made->AllocationSize = fd == kFile ? kSize : 0;
    made->FileAttributes = fd == kFile ? FILE_ATTRIBUTE_READONLY : FILE_ATTRIBUTE_DIRECTORY;
    made->FileId = fd;
    *info = made;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI Lookup(void* context, PKEVENT cancel, PCUNICODE_STRING path, PluginFileInfo** info,
                      PluginAccessMask* maxAccess)
{
    PluginFd fd;
    *maxAccess = GVND_ACCESS_READ; // for more the driver asks once again, and then refuses
    if (const NTSTATUS status = Find(path, &fd); !NT_SUCCESS(status)) return status;
    return GetInfo(context, cancel, fd, info);
}

// Open and OpenDir: the driver knows the type from Lookup and calls the right one.
NTSTATUS NTAPI Open(void*, PKEVENT, PCUNICODE_STRING path, PluginAccessMask, PluginFd* fd) { return Find(path, fd); }

// The buffer may be the caller's own memory, so the copy may fault. The driver contains that; no lock is held here.
NTSTATUS NTAPI Read(void*, PKEVENT, PluginFd, LONGLONG offset, ULONG* length, void* buffer)
{
    if (offset < 0 || offset >= kSize) return STATUS_END_OF_FILE;
    const ULONG left = kSize - static_cast<ULONG>(offset);
    if (*length > left) *length = left;
    RtlCopyMemory(buffer, kContents + offset, *length);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ReadDirEntry(void*, PKEVENT, PluginFd, ULONG index, PluginDirEntry** entry)
{
    if (index != 0) return STATUS_NO_MORE_FILES;
    auto* const made = static_cast<PluginDirEntry*>(Allocate(sizeof(PluginDirEntry) + kNameBytes));
    if (!made) return STATUS_INSUFFICIENT_RESOURCES;
    made->CreationTime = made->LastAccessTime = made->LastWriteTime = made->ChangeTime = kTime;
    made->EndOfFile = made->AllocationSize = kSize;
    made->FileAttributes = FILE_ATTRIBUTE_READONLY;
    made->FileNameLength = kNameBytes;
    RtlCopyMemory(made->FileName, kName, kNameBytes);
    *entry = made;
    return STATUS_SUCCESS;
}

VOID NTAPI OnUnmounted(void* context) { KeSetEvent(&static_cast<Volume*>(context)->Unmounted, IO_NO_INCREMENT, FALSE); }

// A volume: a table whose context is the volume itself.
NTSTATUS NTAPI CreateVolume(const char* arguments, PluginOps** ops)
{
    *ops = nullptr;
    if (*arguments) return STATUS_INVALID_PARAMETER; // it takes none
    auto* const volume = static_cast<Volume*>(ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(Volume), kTag));
    if (!volume) return STATUS_INSUFFICIENT_RESOURCES;
    RtlZeroMemory(volume, sizeof(Volume));
    KeInitializeEvent(&volume->Unmounted, NotificationEvent, FALSE);
    volume->Ops.Version = GVND_PLUGIN_VERSION;
    volume->Ops.PluginContext = volume;
    volume->Ops.OnUnmounted = OnUnmounted;
    volume->Ops.Lookup = Lookup;
    volume->Ops.Open = volume->Ops.OpenDir = Open;
    volume->Ops.Read = Read;
    volume->Ops.GetInfo = GetInfo;
    volume->Ops.ReadDirEntry = ReadDirEntry;
    *ops = &volume->Ops;
    return STATUS_SUCCESS;
}

VOID NTAPI WaitUntilUnmounted(PluginOps* ops)
{
    KeWaitForSingleObject(&reinterpret_cast<Volume*>(ops)->Unmounted, Executive, KernelMode, FALSE, nullptr);
}

VOID NTAPI DestroyVolume(PluginOps* ops) { ExFreePoolWithTag(ops, kTag); }

constexpr GvndPlugin kPlugin = {
    GVND_PLUGIN_ENTRY_VERSION, 0, "Hello", "one read-only file", "", CreateVolume, WaitUntilUnmounted, DestroyVolume,
};

} // namespace

extern "C" const GvndPlugin* GvndGetPlugin(VOID) { return &kPlugin; }
