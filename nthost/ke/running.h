// The list of running threads. Its lock also guards what other threads post to a thread (ke/held.h).
#pragma once

#include "ke/thread.h"
#include "ke/word_lock.h"

namespace nthost::ke {

extern WordLock runningLock;
extern LIST_ENTRY running;              // by _ETHREAD.LiveLink, under runningLock
bool IsRunning(const _ETHREAD* thread); // under runningLock

// For ps, as threads begin and end.
void AddRunning(_ETHREAD* thread);
void RemoveRunning(_ETHREAD* thread);

// Runs the body under the lock if the thread runs. The pointer may be stale.
template <typename Body>
void WithRunningThread(const _ETHREAD* thread, Body body)
{
    runningLock.lock();
    if (IsRunning(thread)) body();
    runningLock.unlock();
}

// Under the lock.
template <typename Body>
void ForEachRunning(Body body)
{
    runningLock.lock();
    for (const LIST_ENTRY* entry = running.Flink; entry != &running; entry = entry->Flink)
        body(CONTAINING_RECORD(entry, _ETHREAD, LiveLink));
    runningLock.unlock();
}

} // namespace nthost::ke
