// Keeps the record of held locks. Posted releases are guarded by the lock of the running threads' list, which also
// tells whether the thread is still there.
#include "ke/held.h"

#include "ke/running.h"

namespace nthost::ke {

void NoteHeld(_ETHREAD* thread, void* lock, HeldLock::Kind kind, HoldMode mode, void* where)
{
    HeldLock* held = FindHeld(thread, lock);
    if (!held) held = &thread->Held.emplace_back(HeldLock{lock, kind, 0, 0, where});
    ++(mode == HoldMode::Shared ? held->Shared : held->Exclusive);
}

void NoteReleased(_ETHREAD* thread, HeldLock* held)
{
    --(held->Shared ? held->Shared : held->Exclusive);
    if (held->Shared + held->Exclusive == 0) thread->Held.erase(thread->Held.begin() + (held - thread->Held.data()));
}

void PostReleased(_ETHREAD* thread, void* lock)
{
    WithRunningThread(thread, [&] {
        thread->Disowned.push_back(lock);
        thread->HasDisowned.store(true, std::memory_order_release);
    });
}

void ForgetDisowned(_ETHREAD* thread)
{
    std::vector<void*> disowned;
    WithRunningThread(thread, [&] {
        disowned.swap(thread->Disowned);
        thread->HasDisowned.store(false, std::memory_order_relaxed);
    });
    for (void* const lock : disowned)
        for (HeldLock& held : thread->Held)
            if (held.Address == lock) {
                NoteReleased(thread, &held);
                break;
            }
}

} // namespace nthost::ke
