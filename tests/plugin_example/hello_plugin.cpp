// The operations, the table, and the service around them. Everything here is constant once the volume is mounted, so
// the operations need no lock.

#include "hello_plugin.h"

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
    KEVENT Unmounted;
    PDEVICE_OBJECT Device;
    const GvServices* Services;
    PluginOps Ops;
};
Volume volume;

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

NTSTATUS NTAPI Lookup(void*, PKEVENT, PCUNICODE_STRING path, PluginFileInfo** info, PluginAccessMask* maxAccess)
{
    PluginFd fd;
    if (const NTSTATUS status = Find(path, &fd); !NT_SUCCESS(status)) return status;
    auto* const made = static_cast<PluginFileInfo*>(Allocate(sizeof(PluginFileInfo)));
    if (!made) return STATUS_INSUFFICIENT_RESOURCES;
    made->CreationTime = made->LastAccessTime = made->LastWriteTime = made->ChangeTime = kTime;
    made->EndOfFile = made->AllocationSize = fd == kFile ? kSize : 0;
    made->FileAttributes = fd == kFile ? FILE_ATTRIBUTE_READONLY : FILE_ATTRIBUTE_DIRECTORY;
    made->FileId = fd;
    *info = made;
    *maxAccess = GVND_ACCESS_READ; // for more the driver asks once again, and then refuses
    return STATUS_SUCCESS;
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

VOID NTAPI OnUnmounted(void*) { KeSetEvent(&volume.Unmounted, IO_NO_INCREMENT, FALSE); }

void FillTable()
{
    volume.Ops.Version = GVND_PLUGIN_VERSION;
    volume.Ops.OnUnmounted = OnUnmounted;
    volume.Ops.Lookup = Lookup;
    volume.Ops.Open = volume.Ops.OpenDir = Open;
    volume.Ops.Read = Read;
    volume.Ops.ReadDirEntry = ReadDirEntry;
}

// The table of services outlives the handle it was fetched through.
NTSTATUS FetchServices()
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, GVND_CONTROL_DEVICE_NAME);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK result;
    HANDLE device;
    NTSTATUS status =
        ZwCreateFile(&device, FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE, &attributes, &result, nullptr, 0,
                     FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    if (!NT_SUCCESS(status)) return status;
    status = ZwDeviceIoControlFile(device, nullptr, nullptr, nullptr, &result, IOCTL_GVND_GET_SERVICE_TABLE, nullptr, 0,
                                   &volume.Services, sizeof(volume.Services));
    ZwClose(device);
    return status;
}

// The driver calls through the table until OnUnmounted has returned, so the image must not go before.
VOID NTAPI Unload(PDRIVER_OBJECT)
{
    (void)volume.Services->UnmountRequest(volume.Device); // can only refuse above PASSIVE_LEVEL
    KeWaitForSingleObject(&volume.Unmounted, Executive, KernelMode, FALSE, nullptr);
}

} // namespace

extern "C" NTSTATUS NTAPI HelloDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    volume = {};
    KeInitializeEvent(&volume.Unmounted, NotificationEvent, FALSE);
    FillTable();
    if (const NTSTATUS status = FetchServices(); !NT_SUCCESS(status)) return status;
    UNICODE_STRING backing, device, link;
    RtlInitUnicodeString(&backing, L"\\Device\\Null");
    RtlInitUnicodeString(&device, L"\\Device\\Hello");
    RtlInitUnicodeString(&link, L"\\??\\Hello");
    const NTSTATUS status = volume.Services->Mount(&backing, &device, &link, nullptr, &volume.Ops, &volume.Device);
    if (NT_SUCCESS(status)) driver->DriverUnload = Unload;
    return status;
}
