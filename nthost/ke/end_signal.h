// An event without state, for conditions that are kept elsewhere: who changes one raises it.
#pragma once

#include "ke/park.h"

namespace nthost::ke {

// Lets threads wait for the end of requests that they do not own.
class EndSignal {
public:
    void Raise()
    {
        changes_.fetch_add(1);
        if (waiters_.load()) UnparkAddress(&changes_, UINT32_MAX >> 1); // a negative count would wake one
    }
    // False when the deadline has passed first.
    template <typename Condition>
    bool Await(const Condition& reached, int64_t deadline = NoDeadline)
    {
        for (bool inTime = true;;) {
            const uint32_t seen = changes_.load();
            if (reached()) return true;
            if (!inTime) return false;
            waiters_.fetch_add(1);
            inTime = ParkOnAddress(&changes_, seen, deadline);
            waiters_.fetch_sub(1);
        }
    }

private:
    std::atomic<uint32_t> changes_{0};
    std::atomic<uint32_t> waiters_{0};
};

} // namespace nthost::ke
