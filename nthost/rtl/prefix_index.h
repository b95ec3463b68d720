// What a prefix table of many names finds them by: a hash table over the folded names beside the trees, which keep the
// order. A walk down a tree of a hundred thousand names misses the processor's caches at every step, a slot does so
// once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <ntifs.h>

namespace nthost::rtl {

// Of an odd number, modulo 2^64.
constexpr uint64_t Inverse(uint64_t odd)
{
    uint64_t inverse = odd; // right in three bits; each step doubles that
    for (int step = 0; step < 5; ++step) inverse *= 2 - odd * inverse;
    return inverse;
}

// The hash of a folded name, which grows and shrinks at its end: of a path's prefixes each costs its last component.
class FoldedHash {
public:
    void Append(WCHAR unit) { value_ = value_ * kFactor + unit + 1; }
    void RemoveLast(WCHAR unit) { value_ = (value_ - unit - 1) * kInverse; }
    uint64_t Value() const { return (value_ ^ value_ >> 32) * kFactor; }

private:
    static constexpr uint64_t kFactor = 0x9e3779b97f4a7c15, kInverse = Inverse(kFactor);
    static_assert(kFactor * kInverse == 1);
    uint64_t value_ = 0;
};

// As an entry it stands in front of the table's trees.
class PrefixIndex : public UNICODE_PREFIX_TABLE_ENTRY {
public:
    using Entry = UNICODE_PREFIX_TABLE_ENTRY;

    explicit PrefixIndex(const Entry& head) : Entry(head), slots_(256) {}

    size_t Count() const { return count_; }

    // The entry of this hash that the test takes, or null.
    template <typename Test>
    Entry* Find(uint64_t hash, Test test) const
    {
        for (size_t i = Home(hash); slots_[i].Holder; i = Next(i))
            if (slots_[i].Hash == hash && test(slots_[i].Holder)) return slots_[i].Holder;
        return nullptr;
    }
    void Insert(uint64_t hash, Entry* entry);
    // The entry is there under this hash.
    void Replace(uint64_t hash, const Entry* entry, Entry* by) { slots_[SlotOf(hash, entry)].Holder = by; }
    void Remove(uint64_t hash, const Entry* entry);

private:
    struct Slot {
        uint64_t Hash;
        Entry* Holder; // null: free
    };

    size_t Home(uint64_t hash) const { return hash >> 32 & (slots_.size() - 1); }
    size_t Next(size_t i) const { return (i + 1) & (slots_.size() - 1); }
    size_t SlotOf(uint64_t hash, const Entry* entry) const;
    void Put(Slot slot);

    std::vector<Slot> slots_; // a power of two, at most half full
    size_t count_ = 0;
};

} // namespace nthost::rtl
