// Where a thread may lose its turn. Off, each costs one relaxed load.
#pragma once

#include <atomic>

namespace nthost::ke {

inline constinit std::atomic<bool> scheduled = false;

// Another thread may run here, if this one takes part in a schedule.
void SwitchHere(const char* where);
inline void SwitchPoint(const char* where)
{
    if (scheduled.load(std::memory_order_relaxed)) [[unlikely]]
        SwitchHere(where);
}

} // namespace nthost::ke
