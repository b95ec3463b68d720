// The counted header in front of every object body. Private to ob/.
#pragma once

#include <atomic>
#include <string>

#include "ob/object.h"

namespace nthost::ob {

struct alignas(16) Header {
    std::atomic<LONG> Pointers;
    std::atomic<LONG> Handles;
    POBJECT_TYPE Type;

    // Under the lock of the live list's shard:
    LIST_ENTRY Live;

    // Under the namespace lock:
    void* Parent;               // body of the directory that has the name; not referenced, it outlives its entries
    const std::u16string* Name; // the directory's own key

    ULONG Generation; // of the boot that saw it made
    bool OfBoot;      // part of the system itself: no leak
};

inline Header* HeaderOf(void* body) { return static_cast<Header*>(body) - 1; }

inline void* BodyOf(Header* header) { return header + 1; }

// Everything made until the next call belongs to a new boot.
void BeginGeneration();

// namespace.cpp
void BootNamespace();
void ShutdownNamespace();

} // namespace nthost::ob
