// Pool: blocks from the host's heap with a header that knows tag, size and kind, and a guard behind. Shard locks guard
// the lists of live blocks. With checks on, the set of live addresses tells a block freed twice before its header is
// looked at, memory is filled on allocation and on free, and each block keeps the stack that made it.
#include <nthost/faults.h>
#include <nthost/pool.h>

#include <cstddef>
#include <cstdlib>
#include <mutex>
#include <unordered_set>

#include "check/fatal.h"
#include "ke/lock_order.h"
#include "check/text.h"
#include "ke/live.h"
#include "ex/pool_block.h"
#include "ke/thread.h"

#if NTHOST_ASAN
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, size)   ((void)0)
#define ASAN_UNPOISON_MEMORY_REGION(address, size) ((void)0)
#endif

namespace nthost::ex {

namespace {

std::atomic<uint64_t> allocations;

// By address, since a wild pointer has no header to ask. Sharded like the blocks.
struct LiveSet {
    ke::WordLock Lock;
    std::unordered_set<const void*> Blocks;
};

LiveSet& LiveSetOf(const void* block)
{
    static LiveSet* const sets = new LiveSet[kShards]; // outlives static destruction: threads may still free
    return sets[(reinterpret_cast<uintptr_t>(block) >> 6) % kShards];
}

void NoteLive(const void* block)
{
    LiveSet& set = LiveSetOf(block);
    std::lock_guard lock(set.Lock);
    set.Blocks.insert(block);
}

bool ForgetLive(const void* block)
{
    LiveSet& set = LiveSetOf(block);
    std::lock_guard lock(set.Lock);
    return set.Blocks.erase(block) != 0;
}

PoolShard* ShardOfThread()
{
    static std::atomic<unsigned> next;
    static thread_local PoolShard* const shard = &Shards()[next++ % kShards];
    return shard;
}

bool IsPaged(ULONG type) { return type & PagedPool; }

void CheckIrql(const char* operation, bool paged)
{
    const _ETHREAD* const thread = ke::CurrentThreadOrNull();
    if (!thread || thread->Irql <= (paged ? APC_LEVEL : DISPATCH_LEVEL)) return;
    ReportFinding(paged ? "paged-pool-above-apc-level" : "pool-above-dispatch-level",
                  Format("%s at IRQL %u", operation, thread->Irql));
}

// A header and room behind it; from a page on, the caller's bytes begin on a page.
BlockHeader* AllocateChunk(SIZE_T size)
{
    const bool large = size >= PAGE_SIZE;
    const size_t front = large ? PAGE_SIZE : sizeof(BlockHeader);
    if (size > SIZE_MAX / 2) return nullptr;
    static_assert(alignof(std::max_align_t) >= 16, "the allocator aligns small blocks well enough");
    void* chunk = large ? nullptr : malloc(front + size + kTailGuard);
    if (large && posix_memalign(&chunk, PAGE_SIZE, front + size + kTailGuard) != 0) return nullptr;
    if (!chunk) return nullptr;
    BlockHeader* const header = HeaderOf(static_cast<char*>(chunk) + front);
    header->Chunk = chunk;
    return header;
}

void SetGuards(BlockHeader* header)
{
    header->FrontGuard[0] = header->FrontGuard[1] = kGuard;
    ASAN_POISON_MEMORY_REGION(header->FrontGuard, sizeof(header->FrontGuard));
    if (kTailGuard) memcpy(static_cast<char*>(BytesOf(header)) + header->Size, &kGuard, kTailGuard);
}

std::string Describe(const BlockHeader* header)
{
    std::string text = Format("block %p, tag %s, %llu bytes", static_cast<const void*>(header + 1),
                              TagText(header->Tag).c_str(), header->Size);
#if NTHOST_CHECKS
    text += ", allocated at\n" + StackText(header->Stack);
#endif
    return text;
}

void CheckGuards(BlockHeader* header)
{
    ASAN_UNPOISON_MEMORY_REGION(header->FrontGuard, sizeof(header->FrontGuard));
    if (header->FrontGuard[0] != kGuard || header->FrontGuard[1] != kGuard)
        FatalFinding("pool-underrun", "written in front of " + Describe(header));
    if (kTailGuard && memcmp(static_cast<char*>(BytesOf(header)) + header->Size, &kGuard, kTailGuard) != 0)
        FatalFinding("pool-overrun", "written behind " + Describe(header));
}

void Link(BlockHeader* header)
{
    PoolShard* const shard = header->Shard = ShardOfThread();
    std::lock_guard lock(shard->Lock);
    InsertTailList(&shard->Blocks, &header->Link);
    ++shard->LiveBlocks;
    shard->LiveBytes += header->Size;
}

void Unlink(BlockHeader* header)
{
    std::lock_guard lock(header->Shard->Lock);
    RemoveEntryList(&header->Link);
    --header->Shard->LiveBlocks;
    header->Shard->LiveBytes -= header->Size;
}

enum class For { Caller, Host };

void* Allocate(ULONG type, SIZE_T size, ULONG tag, For whom)
{
    BlockHeader* const header = AllocateChunk(size);
    if (!header) return nullptr;
    const _ETHREAD* const thread = ke::CurrentThreadOrNull();
    const bool counts = whom == For::Caller;
    header->Size = size;
    header->Serial = counts ? allocations.fetch_add(1, std::memory_order_relaxed) + 1 : 0;
    header->Tag = tag;
    header->Type = IsPaged(type) ? PagedPool : NonPagedPool;
    header->FromDriver = counts && thread && thread->Calls;
    header->Magic = kLiveMagic;
#if NTHOST_CHECKS
    CaptureStack(header->Stack);
#endif
    SetGuards(header);
    void* const bytes = BytesOf(header);
    if (type & POOL_ZERO_ALLOCATION)
        memset(bytes, 0, size);
    else if (NTHOST_CHECKS)
        memset(bytes, 0xcd, size);
    Link(header);
    if (NTHOST_CHECKS) NoteLive(bytes);
    return bytes;
}

BlockHeader* LiveHeader(void* block)
{
    const bool live = reinterpret_cast<uintptr_t>(block) % 16 == 0 &&
                      (NTHOST_CHECKS ? ForgetLive(block) : HeaderOf(block)->Magic == kLiveMagic);
    if (!live) Fatal("pool block %p is freed, but it is not allocated: freed twice, or never from pool", block);
    return HeaderOf(block);
}

// In front of a wild pointer there need not be memory.
[[gnu::noinline]] bool ReadMagic(const BlockHeader* header, uint64_t* magic)
{
    NT_GUARD guard;
    if (!NtGuardEnter(&guard)) return false;
    *magic = header->Magic;
    NtGuardLeave(&guard);
    return true;
}

bool IsLive(const void* block)
{
    if (reinterpret_cast<uintptr_t>(block) % 16 != 0) return false;
    if (NTHOST_CHECKS) {
        LiveSet& set = LiveSetOf(block);
        std::lock_guard lock(set.Lock);
        return set.Blocks.contains(block);
    }
    uint64_t magic = 0;
    return ReadMagic(static_cast<const BlockHeader*>(block) - 1, &magic) && magic == kLiveMagic;
}

bool IsIntact(const BlockHeader* header)
{
    // The address sanitizer ends the program at the first such write.
    if (NTHOST_ASAN) return true;
    return header->FrontGuard[0] == kGuard && header->FrontGuard[1] == kGuard &&
           memcmp(reinterpret_cast<const char*>(header + 1) + header->Size, &kGuard, kTailGuard) == 0;
}

} // namespace

PoolShard* Shards()
{
    static PoolShard* const shards = new PoolShard[kShards]; // outlives static destruction: threads may still free
    return shards;
}

void* AllocateForHost(POOL_TYPE type, SIZE_T size, ULONG tag) { return Allocate(type, size, tag, For::Host); }

uint64_t Allocations() { return allocations.load(std::memory_order_relaxed); }

} // namespace nthost::ex

using namespace nthost;
using namespace nthost::ex;

bool nthost::FindPoolBlock(const void* address, PoolExtent* extent)
{
    if (!address || !IsLive(address)) return false;
    const auto* const header = static_cast<const BlockHeader*>(address) - 1;
    *extent = {header->Size, header->Serial, IsIntact(header)};
    return true;
}

PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag)
{
    const ULONG type = PoolType;
    if (NTHOST_CHECKS) CheckIrql("pool allocation", IsPaged(type));
    const bool fails = FaultInjected("ExAllocatePoolWithTag");
    void* const block = fails ? nullptr : Allocate(type, NumberOfBytes, Tag, For::Caller);
    if (!block && (type & POOL_RAISE_IF_ALLOCATION_FAILURE)) ExRaiseStatus(STATUS_INSUFFICIENT_RESOURCES);
    return block;
}

VOID NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag)
{
    BlockHeader* const header = LiveHeader(P);
    if (NTHOST_CHECKS) CheckIrql("pool free", IsPaged(header->Type));
    if (Tag && Tag != header->Tag)
        FatalFinding("pool-wrong-tag", "freed with tag " + TagText(Tag) + ": " + Describe(header));
    CheckGuards(header);
    if (NTHOST_CHECKS) {
        ke::CheckNothingLiveIn(P, header->Size);
        ForgetLocksIn(P, header->Size);
        memset(P, 0xdd, header->Size);
    }
    Unlink(header);
    header->Magic = kFreeMagic;
    free(header->Chunk);
}
