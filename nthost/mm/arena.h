// Arenas of user memory as MDLs see them: found by address, kept alive by pins.
#pragma once

#include <atomic>
#include <cstddef>

namespace nthost::mm {

struct Arena {
    int Memfd;
    size_t Size;
    char* Address;
    std::atomic<unsigned> References; // the owner's and one per pin; the last one closes the memfd
    std::atomic<unsigned> Pins;
};

// The arena that contains the whole range, with one pin for the caller; null for other memory.
Arena* PinArenaOf(const void* address, size_t length);
void Unpin(Arena* arena);

// A system address of the arena's pages under the range that was locked; null if there is no room.
void* MapSystemAddress(const Arena* arena, const void* userAddress, size_t length);
void UnmapSystemAddress(void* systemAddress, size_t length);

} // namespace nthost::mm
