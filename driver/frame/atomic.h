// Fields that several threads use with no lock in common: a nested close changes counts and a nested read looks at an
// object without any lock, and queries of one handle share its scan position under a lock held shared. Counters move
// with the Interlocked routines; looked at and set, they and the flags beside them go through here.
#pragma once

#include "frame/nt.h"

template <typename Field>
Field GvLoad(const volatile Field& field)
{
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}

template <typename Field, typename Value>
void GvStore(volatile Field& field, Value value)
{
    __atomic_store_n(&field, static_cast<Field>(value), __ATOMIC_RELEASE);
}
