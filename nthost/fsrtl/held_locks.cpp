// Overlap and ownership rules over the locked ranges of a file. The caller serialises (lock_state.h); what a conflict
// leads to, waiting or refusal, is decided elsewhere.
#include "fsrtl/held_locks.h"

#include <algorithm>

namespace nthost::fsrtl {

namespace {
bool HoldsPoint(const Range& range, uint64_t point)
{
    return !range.Empty() && range.First < point && point <= range.Last();
}
} // namespace

bool Overlap(const Range& a, const Range& b)
{
    if (a.Empty()) return HoldsPoint(b, a.First);
    if (b.Empty()) return HoldsPoint(a, b.First);
    return a.First <= b.Last() && b.First <= a.Last();
}

FILE_LOCK_INFO MakeLockInfo(const Range& range, const LockOwner& owner, bool exclusive)
{
    FILE_LOCK_INFO lock{};
    lock.StartingByte.QuadPart = static_cast<LONGLONG>(range.First);
    lock.Length.QuadPart = static_cast<LONGLONG>(range.Length);
    lock.EndingByte.QuadPart = static_cast<LONGLONG>(range.First + range.Length - 1);
    lock.ExclusiveLock = exclusive;
    lock.Key = owner.Key;
    lock.FileObject = owner.FileObject;
    lock.ProcessId = owner.Process;
    return lock;
}

Range Range::From(PLARGE_INTEGER offset, PLARGE_INTEGER length)
{
    return {static_cast<uint64_t>(offset->QuadPart), static_cast<uint64_t>(length->QuadPart)};
}

Range RangeOf(const FILE_LOCK_INFO& lock)
{
    return {static_cast<uint64_t>(lock.StartingByte.QuadPart), static_cast<uint64_t>(lock.Length.QuadPart)};
}

LockOwner OwnerOf(const FILE_LOCK_INFO& lock) { return {lock.FileObject, lock.ProcessId, lock.Key}; }

template <typename Match>
bool HeldLocks::Table::AnyOverlapping(const Range& range, Match match) const
{
    const uint64_t earliest = range.First > longest_ ? range.First - longest_ : 0;
    const uint64_t latest = range.Empty() ? range.First : range.Last();
    for (auto it = locks_.lower_bound({earliest, 0}); it != locks_.end() && it->first.First <= latest; ++it) {
        if (Overlap(RangeOf(it->second), range) && match(it->second)) return true;
    }
    return false;
}

bool HeldLocks::Table::AnyOverlapping(const Range& range) const
{
    return AnyOverlapping(range, [](const FILE_LOCK_INFO&) { return true; });
}

void HeldLocks::Table::Add(LockPlace place, const FILE_LOCK_INFO& lock)
{
    locks_.emplace(place, lock);
    longest_ = std::max(longest_, RangeOf(lock).Length);
}

void HeldLocks::Table::Remove(LockPlace place)
{
    locks_.erase(place);
    ForgetLongestIfEmpty();
}

bool HeldLocks::Table::RemoveExact(const Range& range, const LockOwner& owner, FILE_LOCK_INFO* removed)
{
    for (auto it = locks_.lower_bound({range.First, 0}); it != locks_.end() && it->first.First == range.First; ++it) {
        if (RangeOf(it->second).Length != range.Length || OwnerOf(it->second) != owner) continue;
        *removed = it->second;
        locks_.erase(it);
        ForgetLongestIfEmpty();
        return true;
    }
    return false;
}

void HeldLocks::Table::Clear()
{
    locks_.clear();
    longest_ = 0;
}

const FILE_LOCK_INFO* HeldLocks::Table::Next(LockPlace after, uint64_t* id) const
{
    const auto it = locks_.upper_bound(after);
    if (it == locks_.end()) return nullptr;
    *id = it->first.Id;
    return &it->second;
}

void HeldLocks::Table::ForgetLongestIfEmpty()
{
    if (locks_.empty()) longest_ = 0;
}

bool HeldLocks::MayLock(const FILE_LOCK_INFO& wanted) const
{
    const Range range = RangeOf(wanted);
    // A shared lock only promises that its holder may read.
    if (!wanted.ExclusiveLock) return MayRead(range, OwnerOf(wanted));
    return !shared_.AnyOverlapping(range) && !exclusive_.AnyOverlapping(range);
}

bool HeldLocks::MayRead(const Range& range, const LockOwner& owner) const
{
    return !exclusive_.AnyOverlapping(range, [&](const FILE_LOCK_INFO& lock) { return OwnerOf(lock) != owner; });
}

bool HeldLocks::MayWrite(const Range& range, const LockOwner& owner) const
{
    return !shared_.AnyOverlapping(range) && MayRead(range, owner);
}

uint64_t HeldLocks::Add(const FILE_LOCK_INFO& lock)
{
    (lock.ExclusiveLock ? exclusive_ : shared_).Add({RangeOf(lock).First, ++lastId_}, lock);
    return lastId_;
}

void HeldLocks::Remove(const FILE_LOCK_INFO& lock, uint64_t id)
{
    (lock.ExclusiveLock ? exclusive_ : shared_).Remove({RangeOf(lock).First, id});
}

bool HeldLocks::RemoveExact(const Range& range, const LockOwner& owner, FILE_LOCK_INFO* removed)
{
    return exclusive_.RemoveExact(range, owner, removed) || shared_.RemoveExact(range, owner, removed);
}

void HeldLocks::Clear()
{
    shared_.Clear();
    exclusive_.Clear();
}

const FILE_LOCK_INFO* HeldLocks::Next(LockPlace after, bool exclusive, uint64_t* id) const
{
    if (exclusive) return exclusive_.Next(after, id);
    if (const FILE_LOCK_INFO* lock = shared_.Next(after, id)) return lock;
    return exclusive_.Next({0, 0}, id);
}

} // namespace nthost::fsrtl
