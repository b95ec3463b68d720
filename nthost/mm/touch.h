// Touches every page of a range, so that a bad one faults now. Nothing is changed in the memory and no lock is needed:
// the accesses are invisible to other threads (and to the sanitizers, which would take a probe for a race).
#pragma once

#include <cstddef>
#include <cstdint>

#include <ntifs.h>

namespace nthost::mm {

inline void TouchForRead(const volatile char* byte)
{
#if defined(__x86_64__)
    char value;
    asm volatile("movb (%1), %0" : "=q"(value) : "r"(byte) : "memory");
#else
    (void)__atomic_load_n(byte, __ATOMIC_RELAXED);
#endif
}

// A locked or with nothing: atomic, so a byte that another thread writes meanwhile is not written back old.
inline void TouchForWrite(volatile char* byte)
{
#if defined(__x86_64__)
    asm volatile("lock; orb $0, (%0)" : : "r"(byte) : "memory", "cc");
#else
    char value = __atomic_load_n(byte, __ATOMIC_RELAXED);
    __atomic_compare_exchange_n(byte, &value, value, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED);
#endif
}

template <typename Touch>
void TouchPages(const volatile void* address, size_t length, Touch touch)
{
    // Numbers, since the range may lie anywhere, null included.
    const auto start = reinterpret_cast<uintptr_t>(address);
    for (uintptr_t at = start; at < start + length; at = (at | (PAGE_SIZE - 1)) + 1)
        touch(reinterpret_cast<volatile char*>(at));
}

} // namespace nthost::mm
