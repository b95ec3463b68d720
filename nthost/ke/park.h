// The one place where a thread of this process blocks. Everything that waits (dispatcher objects, resources, contended
// spin locks) ends in ParkOnAddress, so another scheduler can be put behind these two routines.
#pragma once

#include <atomic>
#include <cstdint>

namespace nthost::ke {

constexpr int64_t NoDeadline = INT64_MAX;

// Blocks while *word == expected, until unparked, until the deadline (CLOCK_MONOTONIC nanoseconds) or spuriously. False
// only when the deadline has passed.
bool ParkOnAddress(std::atomic<uint32_t>* word, uint32_t expected, int64_t deadline = NoDeadline);
void UnparkAddress(std::atomic<uint32_t>* word, unsigned count);
// Lets another thread run that can.
void GiveWay();
// On how many processors threads of this process may run.
unsigned HostProcessors();

} // namespace nthost::ke
