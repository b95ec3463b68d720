// The synchroniser that a volume's change notifications share. It lives in the driver's pool, so a volume that forgets
// it shows in the leak report. The notification queue that uses it belongs to the file system.
#include <ntifs.h>

namespace {

constexpr ULONG SyncTag = 0x4e725346; // "FSrN" in memory

struct NotifySync {
    KSPIN_LOCK Lock;
    ULONG_PTR OwningThread;
    ULONG OwnerCount;
};

} // namespace

VOID NTAPI FsRtlNotifyInitializeSync(PNOTIFY_SYNC* NotifySync)
{
    *NotifySync = nullptr;
    constexpr auto type = static_cast<POOL_TYPE>(NonPagedPool | POOL_ZERO_ALLOCATION);
    PVOID const sync = ExAllocatePoolWithTag(type, sizeof(struct NotifySync), SyncTag);
    if (!sync) ExRaiseStatus(STATUS_INSUFFICIENT_RESOURCES);
    *NotifySync = sync;
}

VOID NTAPI FsRtlNotifyUninitializeSync(PNOTIFY_SYNC* NotifySync)
{
    if (!*NotifySync) return;
    ExFreePoolWithTag(*NotifySync, SyncTag);
    *NotifySync = nullptr;
}
