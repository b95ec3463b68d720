// Holders for the two kinds of lock here. A resource needs kernel APCs off while it is held, or a suspended holder
// would stop everybody else; operations also come from threads that have not entered a critical region.
//
// No thread holds two resources of one volume: an operation finds its node under the tree lock, takes a reference, lets
// the lock go, and then works on the node. The spin locks are leaves.
#pragma once

#include <gvnd/plugin.h>

namespace memfs {

class SharedLock {
public:
    explicit SharedLock(ERESOURCE& resource) : resource_(resource)
    {
        KeEnterCriticalRegion();
        ExAcquireResourceSharedLite(&resource_, TRUE);
    }
    ~SharedLock()
    {
        ExReleaseResourceLite(&resource_);
        KeLeaveCriticalRegion();
    }
    SharedLock(const SharedLock&) = delete;
    SharedLock& operator=(const SharedLock&) = delete;

private:
    ERESOURCE& resource_;
};

class ExclusiveLock {
public:
    explicit ExclusiveLock(ERESOURCE& resource) : resource_(resource)
    {
        KeEnterCriticalRegion();
        ExAcquireResourceExclusiveLite(&resource_, TRUE);
    }
    ~ExclusiveLock()
    {
        ExReleaseResourceLite(&resource_);
        KeLeaveCriticalRegion();
    }
    ExclusiveLock(const ExclusiveLock&) = delete;
    ExclusiveLock& operator=(const ExclusiveLock&) = delete;

private:
    ERESOURCE& resource_;
};

class SpinLock {
public:
    explicit SpinLock(KSPIN_LOCK& lock) : lock_(lock) { KeAcquireSpinLock(&lock_, &irql_); }
    ~SpinLock() { KeReleaseSpinLock(&lock_, irql_); }
    SpinLock(const SpinLock&) = delete;
    SpinLock& operator=(const SpinLock&) = delete;

private:
    KSPIN_LOCK& lock_;
    KIRQL irql_;
};

} // namespace memfs
