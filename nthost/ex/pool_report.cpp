// The picture of the pool for tests and leak reports: walks the shards, one at a time, under their locks.
#include <nthost/pool.h>

#include <algorithm>
#include <mutex>

#include "check/text.h"
#include "ex/pool_block.h"

namespace nthost {

namespace {

template <typename Body>
void ForEachBlock(Body body)
{
    for (unsigned i = 0; i < ex::kShards; ++i) {
        ex::PoolShard& shard = ex::Shards()[i];
        std::lock_guard lock(shard.Lock);
        for (LIST_ENTRY* entry = shard.Blocks.Flink; entry != &shard.Blocks; entry = entry->Flink)
            body(*CONTAINING_RECORD(entry, ex::BlockHeader, Link));
    }
}

struct Copied {
    PoolBlock Block;
    CapturedStack Stack;
};

Copied CopyOf(ex::BlockHeader& header)
{
    Copied copy{{ex::BytesOf(&header), header.Size, header.Tag, header.Type, header.Serial, header.FromDriver, {}}, {}};
#if NTHOST_CHECKS
    copy.Stack = header.Stack;
#endif
    return copy;
}

} // namespace

PoolUsage PoolTotals()
{
    PoolUsage totals;
    for (unsigned i = 0; i < ex::kShards; ++i) {
        ex::PoolShard& shard = ex::Shards()[i];
        std::lock_guard lock(shard.Lock);
        totals.LiveBlocks += shard.LiveBlocks;
        totals.LiveBytes += shard.LiveBytes;
    }
    return totals;
}

std::map<ULONG, PoolUsage> PoolByTag()
{
    std::map<ULONG, PoolUsage> tags;
    ForEachBlock([&](const ex::BlockHeader& header) {
        PoolUsage& usage = tags[header.Tag];
        ++usage.LiveBlocks;
        usage.LiveBytes += header.Size;
    });
    return tags;
}

uint64_t PoolAllocations() { return ex::Allocations(); }

std::vector<PoolBlock> LivePoolBlocks(uint64_t after)
{
    std::vector<Copied> copies;
    ForEachBlock([&](ex::BlockHeader& header) {
        if (header.Serial > after) copies.push_back(CopyOf(header));
    });
    std::sort(copies.begin(), copies.end(),
              [](const Copied& a, const Copied& b) { return a.Block.Serial < b.Block.Serial; });
    std::vector<PoolBlock> blocks;
    for (Copied& copy : copies) {
        copy.Block.Stack = StackText(copy.Stack); // after the walk: naming frames is slow
        blocks.push_back(std::move(copy.Block));
    }
    return blocks;
}

std::string PoolBlockText(const PoolBlock& block)
{
    return Format("pool block %p, tag %s, %llu bytes, %s\n", block.Address, TagText(block.Tag).c_str(), block.Size,
                  block.Type == PagedPool ? "paged" : "non-paged") +
           block.Stack;
}

} // namespace nthost
