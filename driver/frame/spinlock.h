// A spin lock that the thread-safety analysis can follow, and its holder. Both spin locks of a volume are leaf locks:
// nothing is taken, waited for, or called in a plugin while one is held.
#pragma once

#include "frame/annotations.h"
#include "frame/nt.h"

struct GV_CAPABILITY("spin lock") GvSpinLock {
    KSPIN_LOCK Lock;
};

class GV_SCOPED_CAPABILITY GvHeldSpinLock {
public:
    explicit GvHeldSpinLock(GvSpinLock& lock) GV_ACQUIRE(lock) : lock_(lock) { KeAcquireSpinLock(&lock_.Lock, &irql_); }
    ~GvHeldSpinLock() GV_RELEASE() { KeReleaseSpinLock(&lock_.Lock, irql_); }
    GvHeldSpinLock(const GvHeldSpinLock&) = delete;
    GvHeldSpinLock& operator=(const GvHeldSpinLock&) = delete;

private:
    GvSpinLock& lock_;
    KIRQL irql_;
};
