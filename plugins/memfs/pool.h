// Pool memory, tagged memf and always zeroed. Non-paged for what is touched under a spin lock, paged for the rest,
// file contents included.
#pragma once

#include <gvnd/plugin.h>

namespace memfs {

constexpr ULONG kPoolTag = 0x666d656d; // "memf" in memory order

// Null when there is no memory. The zero flag of the pool type is younger than the systems that this runs on.
template <typename T>
T* Allocate(POOL_TYPE pool, SIZE_T bytes = sizeof(T))
{
    void* const block = ExAllocatePoolWithTag(pool, bytes, kPoolTag);
    if (block) RtlZeroMemory(block, bytes);
    return static_cast<T*>(block);
}

inline void Free(void* block)
{
    if (block) ExFreePoolWithTag(block, kPoolTag);
}

// Owns one block until it is handed on.
template <typename T>
class Block {
public:
    explicit Block(T* block = nullptr) : block_(block) {}
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;
    ~Block() { Free(block_); }

    explicit operator bool() const { return block_ != nullptr; }
    T* operator->() const { return block_; }
    T* Get() const { return block_; }
    T* Release()
    {
        T* const block = block_;
        block_ = nullptr;
        return block;
    }

private:
    T* block_;
};

} // namespace memfs
