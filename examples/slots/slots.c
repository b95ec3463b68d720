// A plugin in C that can be written to: a volume whose root holds a fixed number of files, slot0, slot1 and so on, each
// of up to 64 KiB in memory. The files can be read, written, cut and mapped; they cannot be deleted or renamed, and no
// others can be made, which the driver says for the operations that are not in the table.
//
// The contents have their full room from the beginning, so a read or write only copies and needs no lock; and must have
// none, since the caller's buffer may fault. Sizes and times stand under Lock.
#include <gvnd/plugin_entry.h>

#define TAG        0x746f6c73 // "slot" in memory order
#define SLOT_COUNT 4
#define CAPACITY   65536
#define NAME_CHARS 5 // "slotN"
#define NAME_BYTES (NAME_CHARS * sizeof(WCHAR))

typedef struct Slot {
    LONGLONG Size, Created, Written;
    char Contents[CAPACITY];
} Slot;

typedef struct Volume {
    PluginOps Ops; // first: the table's address is the volume's
    KEVENT Unmounted;
    KSPIN_LOCK Lock;
    LONGLONG Made;
    Slot Slots[SLOT_COUNT];
} Volume;

// A handle is the slot's number and 1, or this; 0 would mean that there is none.
#define ROOT ((PluginFd)SLOT_COUNT + 1)

static LONGLONG Now(void)
{
    LARGE_INTEGER time;
    KeQuerySystemTime(&time);
    return time.QuadPart;
}

static void* Allocate(POOL_TYPE pool, SIZE_T bytes)
{
    void* const block = ExAllocatePoolWithTag(pool, bytes, TAG);
    if (block) RtlZeroMemory(block, bytes);
    return block;
}

static void NameOf(ULONG slot, WCHAR* name)
{
    static const WCHAR pattern[] = L"slot0";
    RtlCopyMemory(name, pattern, NAME_BYTES);
    name[NAME_CHARS - 1] = (WCHAR)(L'0' + slot);
}

// The spelling is the caller's: whether case counts is for the plugin to say.
static NTSTATUS Find(PCUNICODE_STRING path, PluginFd* fd)
{
    WCHAR text[NAME_CHARS + 1] = {L'\\'};
    UNICODE_STRING name = {sizeof(WCHAR), sizeof text, text};
    *fd = ROOT;
    if (RtlEqualUnicodeString(path, &name, TRUE)) return STATUS_SUCCESS;
    name.Length = sizeof text;
    for (ULONG slot = 0; slot < SLOT_COUNT; ++slot) {
        NameOf(slot, text + 1);
        *fd = slot + 1;
        if (RtlEqualUnicodeString(path, &name, TRUE)) return STATUS_SUCCESS;
    }
    return STATUS_OBJECT_NAME_NOT_FOUND;
}

// Describes a slot by the fields that a file's record and a directory's entry have in common.
#define DESCRIBE(volume, slot, record)                                                               \
    do {                                                                                             \
        KIRQL irql;                                                                                  \
        KeAcquireSpinLock(&(volume)->Lock, &irql);                                                   \
        (record)->CreationTime = (slot)->Created;                                                    \
        (record)->LastAccessTime = (record)->LastWriteTime = (record)->ChangeTime = (slot)->Written; \
        (record)->EndOfFile = (slot)->Size;                                                          \
        KeReleaseSpinLock(&(volume)->Lock, irql);                                                    \
        (record)->AllocationSize = CAPACITY;                                                         \
        (record)->FileAttributes = FILE_ATTRIBUTE_ARCHIVE;                                           \
    } while (0)

static NTSTATUS NTAPI GetInfo(void* context, PKEVENT cancel, PluginFd fd, PluginFileInfo** info)
{
    Volume* const volume = context;
    (void)cancel;
    // Paged pool must not be touched under a spin lock.
    PluginFileInfo* const made = Allocate(NonPagedPoolNx, sizeof *made);
    if (!made) return STATUS_INSUFFICIENT_RESOURCES;
    if (fd == ROOT) {
        made->CreationTime = made->LastAccessTime = made->LastWriteTime = made->ChangeTime = volume->Made;
        made->FileAttributes = FILE_ATTRIBUTE_DIRECTORY;
    } else {
        DESCRIBE(volume, &volume->Slots[fd - 1], made);
    }
    made->FileId = fd;
    *info = made;
    return STATUS_SUCCESS;
}

static NTSTATUS NTAPI Lookup(void* context, PKEVENT cancel, PCUNICODE_STRING path, PluginFileInfo** info,
                             PluginAccessMask* maxAccess)
{
    PluginFd fd;
    const NTSTATUS status = Find(path, &fd);
    if (!NT_SUCCESS(status)) return status;
    *maxAccess = GVND_ACCESS_ALL;
    return GetInfo(context, cancel, fd, info);
}

// Open and OpenDir: the driver knows the type from Lookup and calls the right one.
static NTSTATUS NTAPI Open(void* context, PKEVENT cancel, PCUNICODE_STRING path, PluginAccessMask wanted, PluginFd* fd)
{
    (void)context, (void)cancel, (void)wanted;
    return Find(path, fd);
}

static LONGLONG SizeOf(Volume* volume, const Slot* slot)
{
    KIRQL irql;
    KeAcquireSpinLock(&volume->Lock, &irql);
    const LONGLONG size = slot->Size;
    KeReleaseSpinLock(&volume->Lock, irql);
    return size;
}

static NTSTATUS NTAPI Read(void* context, PKEVENT cancel, PluginFd fd, LONGLONG offset, ULONG* length, void* buffer)
{
    Volume* const volume = context;
    const Slot* const slot = &volume->Slots[fd - 1];
    const LONGLONG size = SizeOf(volume, slot);
    (void)cancel;
    if (offset < 0 || offset >= size) return STATUS_END_OF_FILE;
    if (*length > size - offset) *length = (ULONG)(size - offset);
    RtlCopyMemory(buffer, slot->Contents + offset, *length);
    return STATUS_SUCCESS;
}

// A write of less than was offered ends there; one that has no room at all fails.
static NTSTATUS NTAPI Write(void* context, PKEVENT cancel, PluginFd fd, LONGLONG offset, ULONG* length,
                            const void* buffer)
{
    Volume* const volume = context;
    Slot* const slot = &volume->Slots[fd - 1];
    KIRQL irql;
    (void)cancel;
    if (offset < 0) return STATUS_INVALID_PARAMETER;
    if (offset >= CAPACITY) return STATUS_DISK_FULL;
    if (*length > CAPACITY - offset) *length = (ULONG)(CAPACITY - offset);
    RtlCopyMemory(slot->Contents + offset, buffer, *length);
    const LONGLONG now = Now();
    KeAcquireSpinLock(&volume->Lock, &irql);
    if (slot->Size < offset + *length) slot->Size = offset + *length;
    slot->Written = now;
    KeReleaseSpinLock(&volume->Lock, irql);
    return STATUS_SUCCESS;
}

// What is cut off reads as zeros when the file grows over it again.
static NTSTATUS NTAPI SetFileSize(void* context, PKEVENT cancel, PluginFd fd, LONGLONG* fileSize,
                                  const LONGLONG* allocationSize)
{
    Volume* const volume = context;
    Slot* const slot = &volume->Slots[fd - 1];
    KIRQL irql;
    (void)cancel, (void)allocationSize; // each slot has its room, whatever is asked
    if (*fileSize > CAPACITY) return STATUS_DISK_FULL;
    const LONGLONG now = Now();
    KeAcquireSpinLock(&volume->Lock, &irql);
    if (*fileSize < slot->Size) RtlZeroMemory(slot->Contents + *fileSize, (SIZE_T)(slot->Size - *fileSize));
    slot->Size = *fileSize;
    slot->Written = now;
    KeReleaseSpinLock(&volume->Lock, irql);
    return STATUS_SUCCESS;
}

static NTSTATUS NTAPI ReadDirEntry(void* context, PKEVENT cancel, PluginFd fd, ULONG index, PluginDirEntry** entry)
{
    Volume* const volume = context;
    (void)cancel, (void)fd;
    if (index >= SLOT_COUNT) return STATUS_NO_MORE_FILES;
    PluginDirEntry* const made = Allocate(NonPagedPoolNx, sizeof *made + NAME_BYTES);
    if (!made) return STATUS_INSUFFICIENT_RESOURCES;
    DESCRIBE(volume, &volume->Slots[index], made);
    made->FileNameLength = NAME_BYTES;
    NameOf(index, made->FileName);
    *entry = made;
    return STATUS_SUCCESS;
}

static NTSTATUS NTAPI GetVolInfo(void* context, PKEVENT cancel, PluginVolInfo** info)
{
    Volume* const volume = context;
    (void)cancel;
    PluginVolInfo* const made = Allocate(PagedPool, sizeof *made);
    if (!made) return STATUS_INSUFFICIENT_RESOURCES;
    made->VolumeCreationTime = volume->Made;
    made->TotalAllocationUnits = SLOT_COUNT;
    made->SectorsPerAllocationUnit = CAPACITY;
    made->BytesPerSector = 1;
    *info = made;
    return STATUS_SUCCESS;
}

// Memory is all there is: nothing is behind it that a flush could reach.
static NTSTATUS NTAPI FlushFile(void* context, PKEVENT cancel, PluginFd fd)
{
    (void)context, (void)cancel, (void)fd;
    return STATUS_SUCCESS;
}

static NTSTATUS NTAPI FlushVol(void* context, PKEVENT cancel)
{
    (void)context, (void)cancel;
    return STATUS_SUCCESS;
}

static VOID NTAPI OnUnmounted(void* context)
{
    Volume* const volume = context;
    KeSetEvent(&volume->Unmounted, IO_NO_INCREMENT, FALSE);
}

static NTSTATUS NTAPI CreateVolume(const char* arguments, PluginOps** ops)
{
    *ops = NULL;
    if (*arguments) return STATUS_INVALID_PARAMETER; // it takes none
    Volume* const volume = Allocate(NonPagedPoolNx, sizeof *volume);
    if (!volume) return STATUS_INSUFFICIENT_RESOURCES;
    KeInitializeEvent(&volume->Unmounted, NotificationEvent, FALSE);
    KeInitializeSpinLock(&volume->Lock);
    volume->Made = Now();
    for (ULONG slot = 0; slot < SLOT_COUNT; ++slot)
        volume->Slots[slot].Created = volume->Slots[slot].Written = volume->Made;
    volume->Ops.Version = GVND_PLUGIN_VERSION;
    volume->Ops.PluginContext = volume;
    volume->Ops.OnUnmounted = OnUnmounted;
    volume->Ops.Lookup = Lookup;
    volume->Ops.Open = volume->Ops.OpenDir = Open;
    volume->Ops.Read = Read;
    volume->Ops.Write = Write;
    volume->Ops.ReadDirEntry = ReadDirEntry;
    volume->Ops.GetInfo = GetInfo;
    volume->Ops.SetFileSize = SetFileSize;
    volume->Ops.GetVolInfo = GetVolInfo;
    volume->Ops.FlushFile = FlushFile;
    volume->Ops.FlushVol = FlushVol;
    *ops = &volume->Ops;
    return STATUS_SUCCESS;
}

static VOID NTAPI WaitUntilUnmounted(PluginOps* ops)
{
    KeWaitForSingleObject(&((Volume*)ops)->Unmounted, Executive, KernelMode, FALSE, NULL);
}

static VOID NTAPI DestroyVolume(PluginOps* ops) { ExFreePoolWithTag(ops, TAG); }

const GvndPlugin* GvndGetPlugin(VOID)
{
    static const GvndPlugin plugin = {
        .Version = GVND_PLUGIN_ENTRY_VERSION,
        .Name = "slots",
        .Summary = "four files of 64 KiB in memory",
        .Arguments = "",
        .Create = CreateVolume,
        .WaitUntilUnmounted = WaitUntilUnmounted,
        .Destroy = DestroyVolume,
    };
    return &plugin;
}
