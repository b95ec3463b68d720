// Entries of a handle table. The table's lock is a leaf: object procedures run after it is given up.
#include "ob/handle_table.h"

#include <algorithm>
#include <mutex>

#include "ob/header.h"

namespace nthost::ob {

namespace {
constexpr size_t MaximumHandles = 1u << 24;
}

NTSTATUS HandleTable::Insert(void* body, ACCESS_MASK granted, ULONG attributes, ULONG* index)
{
    const std::lock_guard hold(lock_);
    if (closed_) return STATUS_PROCESS_IS_TERMINATING;
    if (firstFree_) {
        *index = firstFree_;
        firstFree_ = entries_[firstFree_].Granted;
    } else {
        if (entries_.size() == MaximumHandles) return STATUS_INSUFFICIENT_RESOURCES;
        *index = static_cast<ULONG>(entries_.size());
        entries_.emplace_back();
    }
    ObReferenceObject(body);
    HeaderOf(body)->Handles.fetch_add(1, std::memory_order_relaxed);
    entries_[*index] = {body, granted, attributes};
    return STATUS_SUCCESS;
}

void HandleTable::Close()
{
    const std::lock_guard hold(lock_);
    closed_ = true;
}

bool HandleTable::Reference(ULONG_PTR index, HandleEntry* entry)
{
    const std::lock_guard hold(lock_);
    if (!InUse(index)) return false;
    *entry = entries_[index];
    ObReferenceObject(entry->Body);
    return true;
}

bool HandleTable::Remove(ULONG_PTR index, HandleEntry* entry, ULONG* tableRemaining, ULONG* remaining)
{
    const std::lock_guard hold(lock_);
    if (!InUse(index)) return false;
    *entry = entries_[index];
    entries_[index] = {nullptr, firstFree_, 0};
    firstFree_ = static_cast<ULONG>(index);
    // Counted under this lock, so that of two closes in one process only the later one sees none left.
    *remaining = static_cast<ULONG>(HeaderOf(entry->Body)->Handles.fetch_sub(1, std::memory_order_acq_rel) - 1);
    *tableRemaining = *remaining ? HandlesOn(entry->Body) : 0;
    return true;
}

ULONG HandleTable::HandlesOn(const void* body) const
{
    return static_cast<ULONG>(
        std::count_if(entries_.begin(), entries_.end(), [body](const HandleEntry& e) { return e.Body == body; }));
}

std::vector<ULONG> HandleTable::Indexes()
{
    const std::lock_guard hold(lock_);
    std::vector<ULONG> indexes;
    for (ULONG index = 1; index < entries_.size(); ++index)
        if (entries_[index].Body) indexes.push_back(index);
    return indexes;
}

} // namespace nthost::ob
