// Interlocked operations and the raw memory routines that NT headers give as intrinsics. All interlocked operations
// are full barriers, and the arithmetic ones return the new value unless their name says otherwise.
#pragma once

#include <string.h>

#include "base.h"

FORCEINLINE LONG InterlockedIncrement(volatile LONG* target) { return __atomic_add_fetch(target, 1, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG InterlockedDecrement(volatile LONG* target) { return __atomic_sub_fetch(target, 1, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG InterlockedExchange(volatile LONG* target, LONG value)
{
    return __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);
}
// Returns the value before the addition.
FORCEINLINE LONG InterlockedExchangeAdd(volatile LONG* target, LONG value)
{
    return __atomic_fetch_add(target, value, __ATOMIC_SEQ_CST);
}
// Returns the value before the operation.
FORCEINLINE LONG InterlockedOr(volatile LONG* target, LONG value)
{
    return __atomic_fetch_or(target, value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedAnd(volatile LONG* target, LONG value)
{
    return __atomic_fetch_and(target, value, __ATOMIC_SEQ_CST);
}
// Returns the value found; the exchange happened if that equals the comparand.
FORCEINLINE LONG InterlockedCompareExchange(volatile LONG* target, LONG exchange, LONG comparand)
{
    __atomic_compare_exchange_n(target, &comparand, exchange, 0, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return comparand;
}
FORCEINLINE LONG64 InterlockedIncrement64(volatile LONG64* target)
{
    return __atomic_add_fetch(target, 1, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG64 InterlockedDecrement64(volatile LONG64* target)
{
    return __atomic_sub_fetch(target, 1, __ATOMIC_SEQ_CST);
}
FORCEINLINE PVOID InterlockedExchangePointer(PVOID volatile* target, PVOID value)
{
    return __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);
}
FORCEINLINE PVOID InterlockedCompareExchangePointer(PVOID volatile* target, PVOID exchange, PVOID comparand)
{
    __atomic_compare_exchange_n(target, &comparand, exchange, 0, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return comparand;
}

#define RtlCopyMemory(destination, source, length) memcpy((destination), (source), (length))
#define RtlMoveMemory(destination, source, length) memmove((destination), (source), (length))
#define RtlZeroMemory(destination, length)         memset((destination), 0, (length))
#define RtlFillMemory(destination, length, fill)   memset((destination), (fill), (length))
#define RtlEqualMemory(a, b, length)               (!memcmp((a), (b), (length)))
