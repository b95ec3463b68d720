// Each mistake is one that authors make, in one operation, with the rest of the plugin right. There is one volume in a
// process, so the right table is a global.
#include "mistakes.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <gvnd/memfs.h>
#include <nthost/process.h>
#include <workbench/plugin_table.h>
#include <workbench/requests.h>

namespace mistakes {
namespace {

PluginOps* g_right; // memfs's own
PluginOps g_wrong;
PKEVENT g_cancel; // of the call

template <typename Slot, typename Body>
struct Thunk;

template <typename... Args, typename Body>
struct Thunk<NTSTATUS(NTAPI*)(void*, PKEVENT, Args...), Body> {
    static NTSTATUS NTAPI Call(void*, PKEVENT cancel, Args... args)
    {
        g_cancel = cancel;
        return Body{}(args...);
    }
};

template <typename Slot, typename... Args>
NTSTATUS Right(Slot PluginOps::*slot, Args... args)
{
    return (g_right->*slot)(g_right->PluginContext, g_cancel, args...);
}

template <typename Slot, typename Body>
void Set(Slot PluginOps::*slot, Body)
{
    g_wrong.*slot = Thunk<Slot, Body>::Call;
}

void* Pool(size_t size) { return ExAllocatePoolWithTag(PagedPool, size, 'orrE'); }

// Through a number, so that no compiler sees what comes.
template <typename T>
T* Bad(uintptr_t address)
{
    volatile uintptr_t hidden = address;
    return reinterpret_cast<T*>(hidden);
}

template <typename T>
void Replace(T** block, void* with)
{
    if (*block) ExFreePoolWithTag(*block, 0);
    *block = static_cast<T*>(with);
}

// A copy somewhere else.
template <typename T>
void* CopyTo(void* where, T** block)
{
    if (*block) std::memcpy(where, *block, sizeof(T));
    return where;
}

bool IsBelow(PCUNICODE_STRING path) { return path->Length > sizeof(WCHAR); }

PUNICODE_STRING StringOf(const char16_t* text, void* buffer = nullptr)
{
    const size_t bytes = std::char_traits<char16_t>::length(text) * sizeof(WCHAR);
    auto* const made = static_cast<PUNICODE_STRING>(Pool(sizeof(UNICODE_STRING) + bytes));
    *made = {static_cast<USHORT>(bytes), static_cast<USHORT>(bytes),
             static_cast<PWCH>(buffer ? buffer : static_cast<void*>(made + 1))};
    std::memcpy(made->Buffer, text, bytes);
    return made;
}

// The cast makes the depth count, and the volatile the frame.
[[gnu::noinline]] int Recurse(int depth) // NOLINT(misc-no-recursion)
{
    volatile char frame[512] = {static_cast<char>(depth)};
    return depth < 0 ? 0 : Recurse(depth + 1) + frame[0];
}

void WaitForEver()
{
    KEVENT never;
    KeInitializeEvent(&never, NotificationEvent, FALSE);
    KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, nullptr);
}

ERESOURCE* Resource()
{
    static ERESOURCE* const resource = [] {
        auto* const made = new ERESOURCE;
        ExInitializeResourceLite(made);
        return made;
    }();
    return resource;
}

void OpenOnTheVolume()
{
    static thread_local bool nested;
    if (nested) return;
    nested = true;
    (void)workbench::Open(workbench::Text("\\??\\Checked\\another"));
    nested = false;
}

// As a plugin does that takes itself away: from the file that it opens on a thread of its own to the device below.
void UnmountMyself()
{
    static bool done;
    if (done) return;
    std::thread other = nthost::StartThread(nthost::HostProcess(), [] {
        const workbench::OpenResult volume = workbench::Open(workbench::Text("\\??\\Checked"));
        const workbench::OpenResult control = workbench::Open(workbench::Text(GVND_CONTROL_DEVICE_NAME),
                                                              {.Access = FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE,
                                                               .Share = FILE_SHARE_READ | FILE_SHARE_WRITE,
                                                               .Kernel = true});
        const GvServices* services = nullptr;
        IO_STATUS_BLOCK block{};
        PFILE_OBJECT file = nullptr;
        if (!NT_SUCCESS(volume.Status) || !NT_SUCCESS(control.Status) ||
            !NT_SUCCESS(ZwDeviceIoControlFile(control.File.Get(), nullptr, nullptr, nullptr, &block,
                                              IOCTL_GVND_GET_SERVICE_TABLE, nullptr, 0, &services, sizeof services)) ||
            !NT_SUCCESS(ObReferenceObjectByHandle(volume.File.Get(), 0, IoFileObjectType, KernelMode,
                                                  reinterpret_cast<void**>(&file), nullptr)))
            return;
        done = true;
        (void)services->UnmountRequest(file->DeviceObject);
        ObDereferenceObject(file);
    });
    other.join();
}

VOID NTAPI Raise(void*) { ExRaiseStatus(STATUS_DISK_FULL); }

// The first handle, for good.
void OnlyOneHandle(PluginFd* fd)
{
    static PluginFd first;
    if (!first) first = *fd;
    *fd = first;
}

NTSTATUS EntryAt(ULONG index, PluginFd fd, PluginDirEntry** entry)
{
    return Right(&PluginOps::ReadDirEntry, fd, index, entry);
}

// clang-format off
#define LOOKUP(...) Set(&PluginOps::Lookup, []([[maybe_unused]] PCUNICODE_STRING path, PluginFileInfo** info, \
        PluginAccessMask* access) -> NTSTATUS { \
    [[maybe_unused]] NTSTATUS s = Right(&PluginOps::Lookup, path, info, access); \
    __VA_ARGS__; return s; })
#define GETINFO(...) Set(&PluginOps::GetInfo, []([[maybe_unused]] PluginFd fd, PluginFileInfo** info) -> NTSTATUS { \
    [[maybe_unused]] NTSTATUS s = Right(&PluginOps::GetInfo, fd, info); \
    __VA_ARGS__; return s; })
#define OPEN_AS(slot, ...) Set(&PluginOps::slot, [](PCUNICODE_STRING path, PluginAccessMask wanted, PluginFd* fd) -> NTSTATUS { \
    [[maybe_unused]] NTSTATUS s = Right(&PluginOps::slot, path, wanted, fd); \
    __VA_ARGS__; return s; })
#define CREATE(...) Set(&PluginOps::Create, []([[maybe_unused]] PCUNICODE_STRING path, PluginFd* fd) -> NTSTATUS { \
    NTSTATUS s = STATUS_SUCCESS; __VA_ARGS__; return s; })
#define READ(...) Set(&PluginOps::Read, [](PluginFd fd, LONGLONG offset, ULONG* length, void* buffer) -> NTSTATUS { \
    [[maybe_unused]] const ULONG asked = *length; \
    [[maybe_unused]] NTSTATUS s = Right(&PluginOps::Read, fd, offset, length, buffer); \
    __VA_ARGS__; return s; })
#define WRITE(...) Set(&PluginOps::Write, []([[maybe_unused]] PluginFd fd, [[maybe_unused]] LONGLONG offset, ULONG* length, \
        [[maybe_unused]] const void* buffer) -> NTSTATUS { \
    [[maybe_unused]] const auto right = [&] { return Right(&PluginOps::Write, fd, offset, length, buffer); }; \
    __VA_ARGS__; })
#define LIST(...) Set(&PluginOps::ReadDirEntry, []([[maybe_unused]] PluginFd fd, [[maybe_unused]] ULONG index, \
        PluginDirEntry** entry) -> NTSTATUS { NTSTATUS s; __VA_ARGS__; return s; })
#define LISTED(...) LIST(s = EntryAt(index, fd, entry); if (NT_SUCCESS(s)) { __VA_ARGS__; })
#define LINK(...) Set(&PluginOps::ReadLink, []([[maybe_unused]] PCUNICODE_STRING path, [[maybe_unused]] PUNICODE_STRING* target, \
        PUNICODE_STRING*) -> NTSTATUS { __VA_ARGS__; return STATUS_SUCCESS; })
#define VOLUME(...) Set(&PluginOps::GetVolInfo, [](PluginVolInfo** info) -> NTSTATUS { \
    const NTSTATUS s = Right(&PluginOps::GetVolInfo, info); __VA_ARGS__; return s; })
// clang-format on

} // namespace

// clang-format off
const Mistake kMistakes[] = {
    {"none", "", [] {}},
    {"read-zero-at-end", "", [] { READ(if (s == STATUS_END_OF_FILE) { *length = 0; s = STATUS_SUCCESS; }); }},
    // how an operation ends
    {"abort", "call.survives", [] { GETINFO(std::abort()); }},
    {"div-zero", "call.survives", [] { GETINFO(volatile int zero = 0; s = 1 / zero); }},
    {"stack-overflow", "call.survives", [] { READ(s = Recurse(1)); }},
    {"block-lookup", "call.returns", [] { LOOKUP(WaitForEver()); }},
    {"block-read", "call.returns", [] { READ(WaitForEver()); }},
    {"mutex-left-held", "call.returns|call.survives", [] { LOOKUP(static std::mutex mutex; mutex.lock()); }},
    {"null-deref-getinfo", "call.no-exception", [] { GETINFO(*Bad<volatile char>(16) = 1); }},
    {"context-null", "call.no-exception|call.survives", [] { g_wrong.PluginContext = nullptr; }},
    {"raise-lookup", "call.no-exception", [] { LOOKUP(ExRaiseStatus(STATUS_DISK_FULL)); }},
    {"raise-close", "call.no-exception", [] { Set(&PluginOps::Close, [](PluginFd) -> NTSTATUS { ExRaiseStatus(STATUS_DISK_FULL); }); }},
    {"raise-onmounted", "call.no-exception", [] { g_wrong.OnMounted = Raise; }},
    {"raise-onunmounted", "call.no-exception", [] { g_wrong.OnUnmounted = Raise; }},
    {"throw-read", "call.no-throw", [] { READ(throw std::runtime_error("no")); }},
    {"throw-bad-alloc", "call.no-throw", [] { LOOKUP(throw std::bad_alloc()); }},
    {"bool-status", "call.status", [] { LOOKUP(s = NT_SUCCESS(s)); }},
    {"lookup-errno", "call.status", [] { LOOKUP(if (!NT_SUCCESS(s)) s = 2); }},
    {"lookup-minus-errno", "call.status", [] { LOOKUP(if (!NT_SUCCESS(s)) s = -2); }},
    {"lookup-unsuccessful", "lookup.missing-name", [] { LOOKUP(if (!NT_SUCCESS(s)) s = STATUS_UNSUCCESSFUL); }},
    {"lookup-pending", "call.not-pending", [] { LOOKUP(s = STATUS_PENDING); }},
    {"read-pending", "call.not-pending", [] { READ(s = STATUS_PENDING); }},
    {"write-pending", "call.not-pending", [] { WRITE(return STATUS_PENDING); }},
    {"read-warning", "call.status", [] { READ(s = STATUS_BUFFER_OVERFLOW); }},
    // the thread
    {"irql-left", "call.thread-state", [] { LOOKUP(KIRQL old; KeRaiseIrql(APC_LEVEL, &old)); }},
    {"irql-left-dispatch", "call.thread-state", [] { GETINFO(KIRQL old; KeRaiseIrql(DISPATCH_LEVEL, &old)); }},
    {"region-left", "call.thread-state", [] { LOOKUP(KeEnterCriticalRegion()); }},
    {"resource-left-held", "call.thread-state", [] { LOOKUP(KeEnterCriticalRegion(); ExAcquireResourceExclusiveLite(Resource(), TRUE); KeLeaveCriticalRegion()); }},
    {"resource-no-region", "call.kernel-rules", [] { LOOKUP(ExAcquireResourceExclusiveLite(Resource(), TRUE); ExReleaseResourceLite(Resource())); }},
    {"reenter-lookup-open-other", "call.no-reentry", [] { LOOKUP(if (IsBelow(path)) OpenOnTheVolume()); }},
    {"reenter-read-open-other", "call.no-reentry", [] { READ(OpenOnTheVolume()); }},
    {"reenter-write-open-self", "call.no-reentry", [] { WRITE(OpenOnTheVolume(); return right()); }},
    // what comes in
    {"free-path", "record.pool|call.arguments-not-kept|call.survives", [] { LOOKUP(ExFreePoolWithTag(const_cast<PUNICODE_STRING>(path), 0)); }},
    {"keep-path", "call.arguments-not-kept", [] { LOOKUP(static PCUNICODE_STRING kept; if (kept && kept->Length == 1) s = STATUS_DISK_FULL; kept = path); }},
    {"write-path", "call.arguments-unchanged", [] { LOOKUP(path->Buffer[0] = L'/'); }},
    // what goes out
    {"lookup-no-record", "record.owed", [] { LOOKUP(Replace(info, nullptr)); }},
    {"getinfo-no-record", "record.owed", [] { GETINFO(Replace(info, nullptr)); }},
    {"info-malloc", "record.pool", [] { GETINFO(Replace(info, CopyTo(std::malloc(sizeof **info), info))); }},
    {"info-static", "record.pool", [] { GETINFO(static PluginFileInfo mine; Replace(info, CopyTo(&mine, info))); }},
    {"info-stack", "record.pool", [] { GETINFO(PluginFileInfo mine; Replace(info, Bad<void>(reinterpret_cast<uintptr_t>(&mine)))); }},
    {"info-middle-of-block", "record.pool", [] { GETINFO(Replace(info, CopyTo(static_cast<char*>(Pool(256)) + 32, info))); }},
    {"info-cached", "record.pool", [] { GETINFO(static void* cached = Pool(sizeof **info); static bool filled = CopyTo(cached, info) != nullptr; (void)filled; Replace(info, cached)); }},
    {"info-freed-left", "record.pool", [] { GETINFO(ExFreePoolWithTag(*info, 0); s = STATUS_DISK_FULL); }},
    {"info-too-small", "record.room", [] { GETINFO(Replace(info, Pool(16))); }},
    {"info-overrun", "record.within", [] { GETINFO(std::memset(Bad<char>(reinterpret_cast<uintptr_t>(*info)) + sizeof **info, 0x11, 8)); }},
    {"entry-malloc", "record.pool", [] { LISTED(Replace(entry, CopyTo(std::malloc(4096), entry))); }},
    {"record-uninitialised", "record.values", [] { LOOKUP(if (*info) std::memset(*info, 0xcd, sizeof **info)); }},
    {"size-negative", "record.values", [] { GETINFO((*info)->EndOfFile = -1); }},
    {"attr-normal", "record.attributes", [] { LOOKUP(if (*info) (*info)->FileAttributes |= FILE_ATTRIBUTE_NORMAL); }},
    {"attr-compressed", "record.attributes", [] { LOOKUP(if (*info) (*info)->FileAttributes |= 0x800); }},
    {"attr-file-as-dir", "lookup.agrees", [] { LOOKUP(if (*info) (*info)->FileAttributes |= FILE_ATTRIBUTE_DIRECTORY); }},
    {"attr-info-differs", "lookup.agrees", [] { GETINFO(if (*info) (*info)->FileAttributes ^= FILE_ATTRIBUTE_DIRECTORY); }},
    {"size-lookup-zero", "lookup.agrees", [] { LOOKUP(if (*info) (*info)->EndOfFile = 0); }},
    {"id-same", "lookup.file-id", [] { LOOKUP(if (*info) (*info)->FileId = 7); GETINFO(if (*info) (*info)->FileId = 7); }},
    {"mask-not-set", "lookup.access", [] { LOOKUP(PluginAccessMask other; Replace(info, nullptr); *access = 0xdddddddd; s = Right(&PluginOps::Lookup, path, info, &other)); }},
    {"mask-all-bits", "lookup.access", [] { LOOKUP(*access = ~0u); }},
    {"mask-nt-access", "lookup.access", [] { LOOKUP(*access = FILE_GENERIC_READ); }},
    {"mask-zero", "lookup.access-read", [] { LOOKUP(*access = 0); }},
    {"mask-write-only", "lookup.access-read", [] { LOOKUP(*access = GVND_ACCESS_WRITE); }},
    // handles
    {"fd-zero", "handle.set", [] { OPEN_AS(Open, *fd = 0); }},
    {"fd-zero-create", "handle.set", [] { CREATE(s = Right(&PluginOps::Create, path, fd); *fd = 0); }},
    {"fd-not-set", "handle.set", [] { Set(&PluginOps::OpenDir, [](PCUNICODE_STRING path, PluginAccessMask wanted, PluginFd*) { PluginFd other = 0; return Right(&PluginOps::OpenDir, path, wanted, &other); }); }},
    {"fd-on-failure", "handle.none-on-failure", [] { OPEN_AS(Open, s = STATUS_ACCESS_DENIED; *fd = 5); }},
    {"fd-same-for-two", "handle.unique", [] { OPEN_AS(Open, if (NT_SUCCESS(s)) OnlyOneHandle(fd)); }},
    {"close-does-nothing", "table.close", [] { g_wrong.Close = nullptr; }},
    {"close-fails", "close.succeeds", [] { Set(&PluginOps::Close, [](PluginFd fd) { (void)Right(&PluginOps::Close, fd); return STATUS_UNSUCCESSFUL; }); }},
    // the table
    {"version-0", "table.version", [] { g_wrong.Version = 0; }},
    {"version-7", "table.version", [] { g_wrong.Version = 7; }},
    {"no-lookup", "table.slots", [] { g_wrong.Lookup = nullptr; }},
    {"no-open", "table.slots", [] { g_wrong.Open = nullptr; }},
    {"no-readdir", "table.slots", [] { g_wrong.ReadDirEntry = nullptr; }},
    {"no-getinfo", "table.slots", [] { g_wrong.GetInfo = nullptr; }},
    {"no-volinfo", "table.slots", [] { g_wrong.GetVolInfo = nullptr; }},
    // lies
    {"create-lies", "create.found", [] { CREATE(*fd = 0x1234); }},
    {"delete-lies", "delete.done", [] { Set(&PluginOps::Delete, [](PCUNICODE_STRING) { return STATUS_SUCCESS; }); }},
    {"rename-lies", "rename.done", [] { Set(&PluginOps::Rename, [](PCUNICODE_STRING, PCUNICODE_STRING) { return STATUS_SUCCESS; }); }},
    {"write-lies", "write.reads-back", [] { WRITE(return STATUS_SUCCESS); }},
    {"setsize-lies", "size.done", [] { Set(&PluginOps::SetFileSize, [](PluginFd, LONGLONG*, const LONGLONG*) { return STATUS_SUCCESS; }); }},
    // counts
    {"read-length-more", "read.count", [] { READ(*length = 2 * asked); }},
    {"read-length-untouched", "read.end", [] { READ(*length = asked); }},
    {"read-overrun", "read.bounds|record.within", [] { READ(if (asked >= 100) std::memset(Bad<char>(reinterpret_cast<uintptr_t>(buffer)), 'X', asked + 64)); }},
    {"write-length-more", "write.count", [] { WRITE(const NTSTATUS s = right(); *length += 100; return s); }},
    {"write-length-zero", "write.count", [] { WRITE(const NTSTATUS s = right(); *length = 0; return s); }},
    // listings
    {"dir-backslash", "list.names", [] { LISTED((*entry)->FileName[0] = L'\\'); }},
    {"dir-empty-name", "list.names", [] { LISTED((*entry)->FileNameLength = 0); }},
    {"dir-each-twice", "list.no-name-twice", [] { LIST(s = EntryAt(index / 2, fd, entry)); }},
    {"dir-repeat-index", "list.no-name-twice", [] { LIST(s = EntryAt(0, fd, entry)); }},
    {"dir-own-cursor", "list.index", [] { LIST(static ULONG next; s = EntryAt(next++ % 7, fd, entry)); }},
    {"dir-from-one", "list.complete|list.end", [] { LIST(s = index == 0 ? STATUS_NO_MORE_FILES : EntryAt(index - 1, fd, entry)); }},
    {"dir-end-not-found", "list.end", [] { LIST(s = EntryAt(index, fd, entry); if (!NT_SUCCESS(s)) s = STATUS_OBJECT_NAME_NOT_FOUND); }},
    {"dir-no-such-file", "list.end", [] { LIST(s = EntryAt(index, fd, entry); if (!NT_SUCCESS(s)) s = STATUS_NO_SUCH_FILE); }},
    {"dir-end-success", "record.owed", [] { LIST(s = EntryAt(index, fd, entry); if (!NT_SUCCESS(s)) s = STATUS_SUCCESS); }},
    {"dir-no-record", "record.owed", [] { LISTED(Replace(entry, nullptr)); }},
    {"dir-length-huge", "record.room", [] { LISTED((*entry)->FileNameLength = 60000); }},
    {"dir-length-in-chars", "list.found|list.names", [] { LISTED((*entry)->FileNameLength /= 2); }},
    {"dir-not-in-lookup", "list.found", [] { LISTED((*entry)->FileName[0] = L'Z'); }},
    // links, EAs, the volume, names
    {"readlink-no-record", "record.owed", [] { LINK(); }},
    {"readlink-relative", "link.target", [] { LINK(*target = StringOf(u"Dir")); }},
    {"readlink-loop", "link.target", [] { LINK(*target = StringOf(u"\\link")); }},
    {"readlink-two-blocks", "record.room", [] { LINK(*target = StringOf(u"\\Dir", Pool(16))); }},
    {"ea-names-null", "record.owed", [] { Set(&PluginOps::ListEa, [](PluginFd, char**, ULONG* count) { *count = 2; return STATUS_SUCCESS; }); }},
    {"ea-names-unterminated", "ea.names", [] { Set(&PluginOps::ListEa, [](PluginFd, char** names, ULONG* count) { *names = static_cast<char*>(std::memset(Pool(4), 'n', 4)); *count = 1; return STATUS_SUCCESS; }); }},
    {"getea-length-no-value", "record.owed", [] { Set(&PluginOps::GetEa, [](PluginFd, const char*, void**, ULONG* length) { *length = 5; return STATUS_SUCCESS; }); }},
    {"volinfo-no-record", "record.owed", [] { VOLUME(Replace(info, nullptr)); }},
    {"sector-512", "volume.sector", [] { VOLUME((*info)->BytesPerSector = 512); }},
    {"normalized-garbage", "normalized.same", [] { Set(&PluginOps::GetNormalizedPath, [](PCUNICODE_STRING, PUNICODE_STRING* text) { *text = StringOf(u"\\q\u00fc"); return STATUS_SUCCESS; }); }},
    {"unmount-in-read", "mount.works", [] { READ(UnmountMyself()); }},
    {"leak-pool", "memory.nothing-left", [] { LOOKUP((void)Pool(100)); }},
    {nullptr, nullptr, nullptr},
};
// clang-format on

namespace {

// With a link to look at, which only a plugin's own means can make.
void MakeLink()
{
    const workbench::PluginTable right(g_right);
    const std::u16string target = u"\\Dir";
    const workbench::PluginTable::EaValue ea = {
        MEMFS_LINK_EA_NAME, {reinterpret_cast<const char*>(target.data()), target.size() * sizeof(WCHAR)}};
    (void)right.MakeDir("\\Dir");
    (void)right.MakeFile("\\link", {}, &ea);
    const workbench::PluginTable::EaValue plain = {"NAME", "value"};
    (void)right.MakeFile("\\file", "content", &plain);
}

NTSTATUS NTAPI Create(const char* name, PluginOps** ops)
{
    const NTSTATUS status = MemFsCreate(nullptr, &g_right);
    if (!NT_SUCCESS(status)) return status;
    MakeLink();
    g_wrong = *g_right;
    for (const Mistake* mistake = kMistakes; mistake->Name; ++mistake)
        if (std::strcmp(mistake->Name, name) == 0) mistake->Make();
    *ops = &g_wrong;
    return STATUS_SUCCESS;
}

VOID NTAPI WaitUntilUnmounted(PluginOps*) { MemFsWaitUntilUnmounted(g_right); }
VOID NTAPI Destroy(PluginOps*) { MemFsDestroy(g_right); }

} // namespace

const GvndPlugin kPlugin = {
    GVND_PLUGIN_ENTRY_VERSION, 0, "wrong", "memfs with a mistake", "NAME", Create, WaitUntilUnmounted, Destroy,
};

} // namespace mistakes
