// The byte ranges of one file that are locked now, and what they allow. Pure bookkeeping: nothing here locks or waits,
// and nothing looks behind the owners' addresses. The waiting requests and the lock are in lock_state.h.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include <ntifs.h>

namespace nthost::fsrtl {

struct Range {
    uint64_t First;
    uint64_t Length;

    static Range From(PLARGE_INTEGER offset, PLARGE_INTEGER length);
    bool Empty() const { return Length == 0; }
    bool Overflows() const { return Length != 0 && Length - 1 > UINT64_MAX - First; }
    // Of a range that is not empty; transfers may run past the end of the numbers, and end there.
    uint64_t Last() const { return Overflows() ? UINT64_MAX : First + Length - 1; }
};

// An empty range is the point before its first byte: it overlaps a range that holds the bytes on both sides.
bool Overlap(const Range& a, const Range& b);

// Locks and transfers are one's own only if all three agree.
struct LockOwner {
    PFILE_OBJECT FileObject;
    PVOID Process;
    ULONG Key;

    bool operator==(const LockOwner&) const = default;
};

FILE_LOCK_INFO MakeLockInfo(const Range& range, const LockOwner& owner, bool exclusive);
Range RangeOf(const FILE_LOCK_INFO& lock);
LockOwner OwnerOf(const FILE_LOCK_INFO& lock);

// Where a lock stands: by first byte, then by age. Ids start at 1 and are never used again within one HeldLocks.
struct LockPlace {
    uint64_t First;
    uint64_t Id;

    auto operator<=>(const LockPlace&) const = default;
};

class HeldLocks {
public:
    bool Empty() const { return shared_.Empty() && exclusive_.Empty(); }
    bool MayLock(const FILE_LOCK_INFO& wanted) const;
    bool MayRead(const Range& range, const LockOwner& owner) const;
    bool MayWrite(const Range& range, const LockOwner& owner) const;

    // The new lock's id. The caller has asked MayLock.
    uint64_t Add(const FILE_LOCK_INFO& lock);
    // No-op if the lock is gone already.
    void Remove(const FILE_LOCK_INFO& lock, uint64_t id);
    // Removes one lock of this very range and owner, an exclusive one before the oldest shared one. False if none is.
    bool RemoveExact(const Range& range, const LockOwner& owner, FILE_LOCK_INFO* removed);
    // Removes all locks that match and appends them to `removed`.
    template <typename Match>
    void RemoveAll(Match match, std::vector<FILE_LOCK_INFO>* removed)
    {
        shared_.RemoveAll(match, removed);
        exclusive_.RemoveAll(match, removed);
    }
    void Clear();

    // The lock that follows (exclusive, place) in a fixed order, or the first one for ({0, 0}, false); null at the end.
    const FILE_LOCK_INFO* Next(LockPlace after, bool exclusive, uint64_t* id) const;

private:
    // Locks of one kind. Shared ones may overlap, so the search for those that reach into a range starts as far back as
    // the longest lock could have begun.
    class Table {
    public:
        bool Empty() const { return locks_.empty(); }
        template <typename Match>
        bool AnyOverlapping(const Range& range, Match match) const;
        bool AnyOverlapping(const Range& range) const;
        void Add(LockPlace place, const FILE_LOCK_INFO& lock);
        void Remove(LockPlace place);
        bool RemoveExact(const Range& range, const LockOwner& owner, FILE_LOCK_INFO* removed);
        template <typename Match>
        void RemoveAll(Match match, std::vector<FILE_LOCK_INFO>* removed)
        {
            std::erase_if(locks_, [&](const auto& entry) {
                if (!match(entry.second)) return false;
                removed->push_back(entry.second);
                return true;
            });
            ForgetLongestIfEmpty();
        }
        void Clear();
        const FILE_LOCK_INFO* Next(LockPlace after, uint64_t* id) const;

    private:
        void ForgetLongestIfEmpty();

        std::map<LockPlace, FILE_LOCK_INFO> locks_;
        uint64_t longest_ = 0; // no lock is longer; exact enough, as it falls back only when the table is empty
    };

    Table shared_;
    Table exclusive_;
    uint64_t lastId_ = 0;
};

} // namespace nthost::fsrtl
