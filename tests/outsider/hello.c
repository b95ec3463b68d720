// The operations that a read-only volume needs, and no more. Everything is constant, so no lock is needed.
#include "hello.h"

#define TAG          0x6c6c6568 // "hell" in memory order
#define CREATED      133000000000000000LL
#define NAME         L"hello.txt"
#define NAME_BYTES   (sizeof(NAME) - sizeof(WCHAR))
#define CONTENT_SIZE (sizeof(content) - 1)

static const char content[] = "Hello, volume.\n";

// A handle says which of the two objects it is; 0 would mean that there is none.
enum { ROOT = 1, HELLO = 2 };

static void* Allocate(SIZE_T bytes)
{
    void* const block = ExAllocatePoolWithTag(PagedPool, bytes, TAG);
    if (block) RtlZeroMemory(block, bytes);
    return block;
}

static NTSTATUS Find(PCUNICODE_STRING path, PluginFd* fd)
{
    UNICODE_STRING root, file;
    RtlInitUnicodeString(&root, L"\\");
    RtlInitUnicodeString(&file, L"\\hello.txt");
    *fd = RtlEqualUnicodeString(path, &root, TRUE) ? ROOT : RtlEqualUnicodeString(path, &file, TRUE) ? HELLO : 0;
    return *fd ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
}

static NTSTATUS NTAPI Lookup(void* context, PKEVENT cancel, PCUNICODE_STRING path, PluginFileInfo** info,
                             PluginAccessMask* maxAccess)
{
    PluginFd fd;
    (void)context;
    (void)cancel;
    const NTSTATUS status = Find(path, &fd);
    if (!NT_SUCCESS(status)) return status;
    PluginFileInfo* const made = Allocate(sizeof *made);
    if (!made) return STATUS_INSUFFICIENT_RESOURCES;
    made->CreationTime = made->LastAccessTime = made->LastWriteTime = made->ChangeTime = CREATED;
    made->EndOfFile = made->AllocationSize = fd == HELLO ? CONTENT_SIZE : 0;
    made->FileAttributes = fd == HELLO ? FILE_ATTRIBUTE_READONLY : FILE_ATTRIBUTE_DIRECTORY;
    made->FileId = fd;
    *info = made;
    *maxAccess = GVND_ACCESS_READ;
    return STATUS_SUCCESS;
}

static NTSTATUS NTAPI Open(void* context, PKEVENT cancel, PCUNICODE_STRING path, PluginAccessMask wanted, PluginFd* fd)
{
    (void)context;
    (void)cancel;
    (void)wanted;
    return Find(path, fd);
}

static NTSTATUS NTAPI Read(void* context, PKEVENT cancel, PluginFd fd, LONGLONG offset, ULONG* length, void* buffer)
{
    (void)context;
    (void)cancel;
    (void)fd;
    if (offset < 0 || offset >= (LONGLONG)CONTENT_SIZE) return STATUS_END_OF_FILE;
    const ULONG left = (ULONG)(CONTENT_SIZE - offset);
    if (*length > left) *length = left;
    RtlCopyMemory(buffer, content + offset, *length);
    return STATUS_SUCCESS;
}

static NTSTATUS NTAPI ReadDirEntry(void* context, PKEVENT cancel, PluginFd fd, ULONG index, PluginDirEntry** entry)
{
    (void)context;
    (void)cancel;
    (void)fd;
    if (index != 0) return STATUS_NO_MORE_FILES;
    PluginDirEntry* const made = Allocate(sizeof *made + NAME_BYTES);
    if (!made) return STATUS_INSUFFICIENT_RESOURCES;
    made->CreationTime = made->LastAccessTime = made->LastWriteTime = made->ChangeTime = CREATED;
    made->EndOfFile = made->AllocationSize = CONTENT_SIZE;
    made->FileAttributes = FILE_ATTRIBUTE_READONLY;
    made->FileNameLength = NAME_BYTES;
    RtlCopyMemory(made->FileName, NAME, NAME_BYTES);
    *entry = made;
    return STATUS_SUCCESS;
}

const PluginOps* HelloTable(void)
{
    static const PluginOps table = {
        .Version = GVND_PLUGIN_VERSION,
        .Lookup = Lookup,
        .Open = Open,
        .OpenDir = Open,
        .Read = Read,
        .ReadDirEntry = ReadDirEntry,
    };
    return &table;
}
