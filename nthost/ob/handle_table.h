// One process's handles: a vector of entries with a free list threaded through the unused ones, under one lock. Index 0
// is never given out. Every used entry holds one reference and one handle count on its object.
#pragma once

#include <vector>

#include "ke/word_lock.h"
#include "ob/object.h"

namespace nthost::ob {

struct HandleEntry {
    void* Body; // null when free
    ACCESS_MASK Granted;
    ULONG Attributes;
};

class HandleTable {
public:
    // Takes a reference and a handle count. STATUS_INSUFFICIENT_RESOURCES when the table is full,
    // STATUS_PROCESS_IS_TERMINATING once it is closed.
    [[nodiscard]] NTSTATUS Insert(void* body, ACCESS_MASK granted, ULONG attributes, ULONG* index);
    // The entry's object with a reference for the caller; false for an index that is not in use.
    bool Reference(ULONG_PTR index, HandleEntry* entry);
    // Takes the entry out, with the handle count; the reference goes over to the caller. The counts are of handles left
    // on the object: in this table, and everywhere.
    bool Remove(ULONG_PTR index, HandleEntry* entry, ULONG* tableRemaining, ULONG* remaining);
    // No handle can be inserted any more.
    void Close();
    // The indexes in use, in order.
    std::vector<ULONG> Indexes();

private:
    bool InUse(ULONG_PTR index) const { return index < entries_.size() && entries_[index].Body; }
    ULONG HandlesOn(const void* body) const;

    ke::WordLock lock_;
    std::vector<HandleEntry> entries_{1};
    bool closed_ = false;
    ULONG firstFree_ = 0; // free entries keep the next one's index in Granted; 0 ends the list
};

} // namespace nthost::ob
