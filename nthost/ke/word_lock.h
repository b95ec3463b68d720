// A lock in one 32-bit word: 0 free, 1 held, 2 held and somebody may be parked on it. It guards nthost's own short
// sections and is what a driver's spin lock consists of. Unlocking touches the word once; afterwards only its address
// is used, so whoever gets the lock next may free the memory.
#pragma once

#include "ke/park.h"

namespace nthost::ke {

void LockWordContended(std::atomic<uint32_t>& word);

inline void LockWord(std::atomic<uint32_t>& word)
{
    uint32_t expected = 0;
    if (!word.compare_exchange_strong(expected, 1, std::memory_order_acquire)) LockWordContended(word);
}

inline void UnlockWord(std::atomic<uint32_t>& word)
{
    if (word.exchange(0, std::memory_order_release) == 2) UnparkAddress(&word, 1);
}

class WordLock {
public:
    void lock() { LockWord(word_); }
    void unlock() { UnlockWord(word_); }

private:
    std::atomic<uint32_t> word_{0};
};

} // namespace nthost::ke
