// Parking on a futex, and the contended half of the word lock. Nothing else in nthost blocks a thread, apart from host
// threads that join others.
#include "ke/park.h"

#include <cerrno>
#include <ctime>
#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "ke/schedule.h"
#include "ke/word_lock.h"

namespace nthost::ke {

namespace {

constexpr unsigned kSpins = 100; // about what a short section takes; parking costs two system calls

timespec ToTimespec(int64_t nanoseconds)
{
    return {static_cast<time_t>(nanoseconds / 1000000000), static_cast<long>(nanoseconds % 1000000000)};
}

} // namespace

bool ParkOnAddress(std::atomic<uint32_t>* word, uint32_t expected, int64_t deadline)
{
    if (TakesPart()) return ScheduledPark(word, expected, deadline);
    const timespec until = ToTimespec(deadline);
    const long result = syscall(SYS_futex, word, FUTEX_WAIT_BITSET_PRIVATE, expected,
                                deadline == NoDeadline ? nullptr : &until, nullptr, FUTEX_BITSET_MATCH_ANY);
    return !(result == -1 && errno == ETIMEDOUT);
}

void UnparkAddress(std::atomic<uint32_t>* word, unsigned count)
{
    if (TakesPart()) return ScheduledUnpark(word, count);
    syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, count);
}

void GiveWay()
{
    if (TakesPart()) return SwitchAway();
    sched_yield();
}

unsigned HostProcessors()
{
    cpu_set_t allowed;
    return sched_getaffinity(0, sizeof allowed, &allowed) == 0 ? static_cast<unsigned>(CPU_COUNT(&allowed)) : 1;
}

void LockWordContended(std::atomic<uint32_t>& word)
{
    for (unsigned spin = 0; spin < kSpins; ++spin) {
        uint32_t expected = 0;
        if (word.load(std::memory_order_relaxed) == 0 &&
            word.compare_exchange_weak(expected, 1, std::memory_order_acquire))
            return;
        __builtin_ia32_pause();
    }
    // Whoever has waited takes the lock as contended: it cannot know whether others still wait.
    while (word.exchange(2, std::memory_order_acquire) != 0) ParkOnAddress(&word, 2);
}

} // namespace nthost::ke
