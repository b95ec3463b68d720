// Which threads run. Few enough for a walk through the list.
#include "ke/running.h"

namespace nthost::ke {

WordLock runningLock;
LIST_ENTRY running = {&running, &running};

bool IsRunning(const _ETHREAD* thread)
{
    for (const LIST_ENTRY* entry = running.Flink; entry != &running; entry = entry->Flink)
        if (entry == &thread->LiveLink) return true;
    return false;
}

void AddRunning(_ETHREAD* thread)
{
    runningLock.lock();
    InsertTailList(&running, &thread->LiveLink);
    runningLock.unlock();
}

void RemoveRunning(_ETHREAD* thread)
{
    runningLock.lock();
    RemoveEntryList(&thread->LiveLink);
    runningLock.unlock();
}

} // namespace nthost::ke
