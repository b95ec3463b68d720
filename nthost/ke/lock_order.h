// The order in which threads wait for one another, as a graph that must stay free of cycles: a cycle is a deadlock
// waiting for its moment. An edge says that somebody held the one while he had to be ready to wait for the other. Nodes
// are locks by address, and classes for locks that were named (NameLock in nthost/check.h); a resource is two, since
// who shares it holds up others than who has it alone. Besides locks there are what threads wait for without a lock's
// knowledge: a mapped file's pages, while somebody reads one in, and a worker queue, known by its semaphore, while its
// workers are busy. Only with checks on; one lock of its own, never held while a driver's lock is waited for.
#pragma once

#include <cstddef>
#include <string>

#include "ke/thread.h"

namespace nthost {

// Whose release an acquisition may have to wait for: shared owners hold it up directly or through a waiter in front of
// it. Locks without modes, pages and queues have exclusive owners.
enum class BlockedBy { ExclusiveOwner, AnyOwner };

// Call before waiting for `awaited`: an edge from everything that the thread holds. Not for attempts that do not wait.
// Reports "lock-order-cycle", once per cycle.
void NoteLockOrder(_ETHREAD* thread, const volatile void* awaited, BlockedBy blockedBy = BlockedBy::ExclusiveOwner);

// What the thread holds that is no lock: others wait until it has done its work on it.
void NoteAtWork(_ETHREAD* thread, const void* node);
void NoteDone(_ETHREAD* thread, const void* node);
// Whether an order could be noted.
bool HoldsAnything(_ETHREAD* thread);

// A page of the control area is read in while this lives.
class PageRead {
public:
    explicit PageRead(const void* area);
    ~PageRead();
    PageRead(const PageRead&) = delete;
    PageRead& operator=(const PageRead&) = delete;

private:
    const void* area_;
};

// Makes the address a node that is no lock, under a name for reports: "pages of ...", "worker queue ...".
void NamePages(const void* area, std::string name);
void NameQueue(const void* semaphore, std::string name);

// The memory holds no locks any more, or new ones.
void ForgetLocksIn(const volatile void* memory, size_t size);
void ForgetAllLocks();
// A lock's class and address.
std::string LockText(const volatile void* lock);

} // namespace nthost
