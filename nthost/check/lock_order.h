// The order in which locks are taken, as a graph that must stay free of cycles: a cycle is a deadlock waiting for its
// moment. Nodes are locks by address, and classes for locks that were named (NameLock in nthost/check.h). Only with
// checks on; one lock of its own, never held while a driver's lock is waited for.
#pragma once

#include <cstddef>
#include <string>

#include "ke/thread.h"

namespace nthost {

// Call before waiting for `lock`: an edge from every lock that the thread holds. Not for attempts that do not wait.
// Reports "lock-order-cycle", once per cycle.
void NoteLockOrder(_ETHREAD* thread, void* lock);
// The memory holds no locks any more, or new ones.
void ForgetLocksIn(const volatile void* memory, size_t size);
void ForgetAllLocks();
// A lock's class and address.
std::string LockText(void* lock);

} // namespace nthost
