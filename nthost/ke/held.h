// The record of locks that a thread holds: resources always (recursion is counted here and nowhere else), spin locks
// with checks on. Only the thread itself reads and writes its record; a release by another thread is posted to it and
// taken into account the next time the thread looks.
#pragma once

#include "ke/thread.h"

namespace nthost::ke {

void ForgetDisowned(_ETHREAD* thread);

inline std::vector<HeldLock>& HeldBy(_ETHREAD* thread)
{
    if (thread->HasDisowned.load(std::memory_order_acquire)) ForgetDisowned(thread);
    return thread->Held;
}

inline HeldLock* FindHeld(_ETHREAD* thread, const void* lock)
{
    for (HeldLock& held : HeldBy(thread))
        if (held.Address == lock) return &held;
    return nullptr;
}

enum class HoldMode { Shared, Exclusive };

void NoteHeld(_ETHREAD* thread, void* lock, HeldLock::Kind kind, HoldMode mode, void* where);
// One acquisition less; a shared one before an exclusive one, since an exclusive owner takes shared ones on top.
void NoteReleased(_ETHREAD* thread, HeldLock* held);
// From another thread: `lock` is released once for `thread`, which may have ended.
void PostReleased(_ETHREAD* thread, void* lock);

} // namespace nthost::ke
