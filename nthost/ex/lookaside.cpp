// Lookaside lists, the interlocked lists that they keep blocks in, and pool by flags. Of an interlocked list's header
// the first half-word is the depth, the second word a lock, the rest the first entry.
#include <algorithm>

#include <nthost/check.h>

#include "ke/callout.h"
#include "ke/live.h"
#include "ke/word_lock.h"

namespace nthost::ex {

namespace {

constexpr USHORT kKeptBlocks = NTHOST_CHECKS ? 0 : 32;
constexpr USHORT kMaximumDepth = 256;

class Locked {
public:
    explicit Locked(PSLIST_HEADER list) : word_(reinterpret_cast<std::atomic<uint32_t>*>(&list->Alignment)[1])
    {
        ke::LockWord(word_);
    }
    ~Locked() { ke::UnlockWord(word_); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

private:
    std::atomic<uint32_t>& word_;
};

void SetDepth(PSLIST_HEADER list, int depth)
{
    __atomic_store_n(reinterpret_cast<USHORT*>(list), static_cast<USHORT>(depth), __ATOMIC_RELAXED);
}

PSLIST_ENTRY FirstOf(PSLIST_HEADER list) { return reinterpret_cast<PSLIST_ENTRY>(list->Region); }

PVOID NTAPI AllocateFromPool(POOL_TYPE type, SIZE_T size, ULONG tag) { return ExAllocatePoolWithTag(type, size, tag); }

VOID NTAPI FreeToPool(PVOID buffer) { ExFreePoolWithTag(buffer, 0); }

struct NewList {
    POOL_TYPE Pool;
    PALLOCATE_FUNCTION Allocate;
    PFREE_FUNCTION Free;
    ULONG Flags;
    SIZE_T Size;
    ULONG Tag;
};

void Initialize(PGENERAL_LOOKASIDE list, const NewList& from)
{
    *list = {};
    list->Depth = kKeptBlocks;
    list->MaximumDepth = kMaximumDepth;
    list->Type = static_cast<POOL_TYPE>(static_cast<ULONG>(from.Pool) | from.Flags);
    list->Tag = from.Tag;
    list->Size = static_cast<ULONG>(std::max<SIZE_T>(from.Size, sizeof(SLIST_ENTRY)));
    list->Allocate = from.Allocate ? from.Allocate : AllocateFromPool;
    list->Free = from.Free ? from.Free : FreeToPool;
    if (NTHOST_CHECKS) ke::NoteLiveObject(ke::LiveKind::LookasideList, list);
}

void Delete(PGENERAL_LOOKASIDE list)
{
    if (NTHOST_CHECKS) ke::ForgetLiveObject(list);
    while (PSLIST_ENTRY const entry = ExpInterlockedPopEntrySList(&list->ListHead))
        CallDriver(MustRestore::Everything, "free routine of a lookaside list", list->Free, static_cast<PVOID>(entry));
}

constexpr POOL_FLAGS kKinds = POOL_FLAG_NON_PAGED | POOL_FLAG_NON_PAGED_EXECUTE | POOL_FLAG_PAGED;
constexpr POOL_FLAGS kKnown = kKinds | POOL_FLAG_USE_QUOTA | POOL_FLAG_UNINITIALIZED | POOL_FLAG_SESSION |
                              POOL_FLAG_CACHE_ALIGNED | POOL_FLAG_RAISE_ON_FAILURE;

bool AreFlags(POOL_FLAGS flags)
{
    const POOL_FLAGS required = flags & (POOL_FLAG_OPTIONAL_START - 1), kind = flags & kKinds;
    return !(required & ~kKnown) && kind && !(kind & (kind - 1));
}

POOL_TYPE PoolTypeOf(POOL_FLAGS flags)
{
    ULONG type = flags & POOL_FLAG_PAGED ? PagedPool : NonPagedPoolNx;
    if (!(flags & POOL_FLAG_UNINITIALIZED)) type |= POOL_ZERO_ALLOCATION;
    if (flags & POOL_FLAG_RAISE_ON_FAILURE) type |= POOL_RAISE_IF_ALLOCATION_FAILURE;
    return static_cast<POOL_TYPE>(type);
}

} // namespace

} // namespace nthost::ex

using namespace nthost::ex;

PSLIST_ENTRY NTAPI ExpInterlockedPushEntrySList(PSLIST_HEADER ListHead, PSLIST_ENTRY ListEntry)
{
    const Locked lock(ListHead);
    PSLIST_ENTRY const before = FirstOf(ListHead);
    ListEntry->Next = before;
    ListHead->Region = reinterpret_cast<ULONGLONG>(ListEntry);
    SetDepth(ListHead, ExQueryDepthSList(ListHead) + 1);
    return before;
}

PSLIST_ENTRY NTAPI ExpInterlockedPopEntrySList(PSLIST_HEADER ListHead)
{
    const Locked lock(ListHead);
    PSLIST_ENTRY const entry = FirstOf(ListHead);
    if (!entry) return nullptr;
    ListHead->Region = reinterpret_cast<ULONGLONG>(entry->Next);
    SetDepth(ListHead, ExQueryDepthSList(ListHead) - 1);
    return entry;
}

VOID NTAPI ExInitializePagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate,
                                          PFREE_FUNCTION Free, ULONG Flags, SIZE_T Size, ULONG Tag, USHORT)
{
    Initialize(&Lookaside->L, {PagedPool, Allocate, Free, Flags, Size, Tag});
}

VOID NTAPI ExDeletePagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside) { Delete(&Lookaside->L); }

VOID NTAPI ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate,
                                           PFREE_FUNCTION Free, ULONG Flags, SIZE_T Size, ULONG Tag, USHORT)
{
    Initialize(&Lookaside->L, {NonPagedPool, Allocate, Free, Flags, Size, Tag});
}

VOID NTAPI ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside) { Delete(&Lookaside->L); }

PVOID NTAPI ExAllocatePool2(POOL_FLAGS Flags, SIZE_T NumberOfBytes, ULONG Tag)
{
    if (Tag && AreFlags(Flags)) return ExAllocatePoolWithTag(PoolTypeOf(Flags), NumberOfBytes, Tag);
    if (Flags & POOL_FLAG_RAISE_ON_FAILURE) ExRaiseStatus(STATUS_INVALID_PARAMETER);
    return nullptr;
}

VOID NTAPI ExFreePool2(PVOID Pool, ULONG Tag, const VOID*, ULONG) { ExFreePoolWithTag(Pool, Tag); }
