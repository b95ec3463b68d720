// Open addressing: an entry stands in the first free slot from its home on, and no free slot lies between the two.
#include "rtl/prefix_index.h"

namespace nthost::rtl {

size_t PrefixIndex::SlotOf(uint64_t hash, const Entry* entry) const
{
    size_t i = Home(hash);
    while (slots_[i].Holder != entry) i = Next(i);
    return i;
}

void PrefixIndex::Put(Slot slot)
{
    size_t i = Home(slot.Hash);
    while (slots_[i].Holder) i = Next(i);
    slots_[i] = slot;
}

void PrefixIndex::Insert(uint64_t hash, Entry* entry)
{
    if (++count_ * 2 > slots_.size()) {
        std::vector<Slot> old(slots_.size() * 2);
        old.swap(slots_);
        for (const Slot& slot : old)
            if (slot.Holder) Put(slot);
    }
    Put({hash, entry});
}

void PrefixIndex::Remove(uint64_t hash, const Entry* entry)
{
    --count_;
    size_t hole = SlotOf(hash, entry);
    slots_[hole].Holder = nullptr;
    // What follows up to the next free slot must still be found from its home.
    for (size_t i = Next(hole); slots_[i].Holder; i = Next(i)) {
        const size_t fromHome = i - Home(slots_[i].Hash), fromHole = i - hole, mask = slots_.size() - 1;
        if ((fromHome & mask) < (fromHole & mask)) continue;
        slots_[hole] = slots_[i];
        slots_[i].Holder = nullptr;
        hole = i;
    }
}

} // namespace nthost::rtl
