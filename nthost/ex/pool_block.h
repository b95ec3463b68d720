// How a pool block lies in memory: this header, the caller's bytes, and a guard word. Under the address sanitizer the
// caller's bytes end where the host allocation ends, and the sanitizer takes the guard's place.
#pragma once

#include <cstdint>

#include <ntifs.h>
#include <nthost/check.h>

#include "check/stack.h"
#include "ke/word_lock.h"

#if defined(__SANITIZE_ADDRESS__)
#define NTHOST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define NTHOST_ASAN 1
#endif
#endif
#ifndef NTHOST_ASAN
#define NTHOST_ASAN 0
#endif

namespace nthost::ex {

constexpr uint64_t kLiveMagic = 0x6b6c625f6c6f6f70;
constexpr uint64_t kFreeMagic = 0x657266665f6c6f6f;
constexpr uint64_t kGuard = 0xfdfdfdfdfdfdfdfd;
constexpr size_t kTailGuard = NTHOST_ASAN ? 0 : sizeof(kGuard);

struct PoolShard;

struct alignas(16) BlockHeader {
    LIST_ENTRY Link; // in its shard's list, under the shard's lock
    PoolShard* Shard;
    void* Chunk; // what the host gave
    SIZE_T Size;
    uint64_t Serial; // 0: the host's
    ULONG Tag;
    POOL_TYPE Type;
    bool FromDriver;
#if NTHOST_CHECKS
    CapturedStack Stack;
#endif
    uint64_t Magic;
    alignas(16) uint64_t FrontGuard[2]; // up against the caller's bytes; poisoned under the address sanitizer
};

inline BlockHeader* HeaderOf(void* block) { return static_cast<BlockHeader*>(block) - 1; }
inline void* BytesOf(BlockHeader* header) { return header + 1; }

// A thread allocates from the shard that it was given, and a block goes back to the one it came from.
struct alignas(64) PoolShard {
    PoolShard() { InitializeListHead(&Blocks); }
    ke::WordLock Lock;
    LIST_ENTRY Blocks;
    uint64_t LiveBlocks = 0;
    uint64_t LiveBytes = 0;
};

// For what belongs to an object of the host, but may be freed by a driver: it is no driver's cost or leak, and never
// fails on demand. Freed like any other block.
void* AllocateForHost(POOL_TYPE type, SIZE_T size, ULONG tag);

constexpr unsigned kShards = 16;
PoolShard* Shards();
uint64_t Allocations();

} // namespace nthost::ex
