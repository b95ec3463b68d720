// Pool memory: zeroed, tagged gvnd unless a caller has a tag of its own. Non-paged for what is touched under spin locks
// and for control blocks, paged for temporary strings.
#pragma once

#include "frame/nt.h"

constexpr ULONG GvPoolTag = 0x646e7667; // "gvnd" in memory order

inline void* GvAllocate(POOL_TYPE pool, SIZE_T size, ULONG tag = GvPoolTag)
{
    return ExAllocatePoolWithTag(static_cast<POOL_TYPE>(pool | POOL_ZERO_ALLOCATION), size, tag);
}

template <typename T>
T* GvAllocate(POOL_TYPE pool)
{
    return static_cast<T*>(GvAllocate(pool, sizeof(T)));
}

inline void GvFree(void* block) { ExFreePoolWithTag(block, 0); }

// Owns one pool block: the driver's own, or one that a plugin handed over.
template <typename T>
class GvBlock {
public:
    GvBlock() = default;
    explicit GvBlock(T* block) : block_(block) {}
    GvBlock(GvBlock&& other) : block_(other.Release()) {}
    GvBlock& operator=(GvBlock&& other)
    {
        Reset(other.Release());
        return *this;
    }
    ~GvBlock() { Reset(); }

    T* Get() const { return block_; }
    T* operator->() const { return block_; }
    auto& operator*() const { return *block_; } // deduced, so that GvBlock<void> can be
    explicit operator bool() const { return block_ != nullptr; }

    // The address of the empty slot, for a callee that fills it.
    T** Out()
    {
        Reset();
        return &block_;
    }
    T* Release()
    {
        T* block = block_;
        block_ = nullptr;
        return block;
    }
    void Reset(T* block = nullptr)
    {
        if (block_) GvFree(block_);
        block_ = block;
    }

private:
    T* block_ = nullptr;
};
