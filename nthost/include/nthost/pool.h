// What is allocated from pool: totals, per tag, and block by block with the stacks that allocated them. Thread-safe; a
// consistent picture only while nobody allocates or frees.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <ntifs.h>

namespace nthost {

struct PoolUsage {
    uint64_t LiveBlocks = 0;
    uint64_t LiveBytes = 0;
};

PoolUsage PoolTotals();
std::map<ULONG, PoolUsage> PoolByTag();
// Allocations since the start of the process; a block's Serial is the number of its allocation.
uint64_t PoolAllocations();

struct PoolBlock {
    void* Address;
    SIZE_T Size;
    ULONG Tag;
    POOL_TYPE Type;
    uint64_t Serial;
    bool FromDriver;   // allocated while driver code ran on the thread
    std::string Stack; // symbolised; empty without checks
};

struct PoolExtent {
    SIZE_T Size;
    uint64_t Serial;
    bool Intact; // nobody has written in front of it or behind it
};
// Of the live block that begins at the address; false if none does. Any address will do.
bool FindPoolBlock(const void* address, PoolExtent* extent);

// Live blocks with a Serial greater than `after`, oldest first.
std::vector<PoolBlock> LivePoolBlocks(uint64_t after = 0);
// One line for a leak report: tag, size, kind, stack.
std::string PoolBlockText(const PoolBlock& block);

} // namespace nthost
