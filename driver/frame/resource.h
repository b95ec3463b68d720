// Holds an ERESOURCE until the end of the scope. The caller is in a critical region, or a system thread. And the
// assertions of routines that rely on a lock of their caller's: checked builds report a caller without it.
#pragma once

#include "frame/nt.h"

class GvHeldResource {
public:
    GvHeldResource() = default;
    GvHeldResource(const GvHeldResource&) = delete;
    GvHeldResource& operator=(const GvHeldResource&) = delete;
    ~GvHeldResource() { Release(); }

    // STATUS_CANT_WAIT if the platform refuses, which a waiting acquire is not expected to do.
    [[nodiscard]] NTSTATUS Exclusive(PERESOURCE resource)
    {
        if (!ExAcquireResourceExclusiveLite(resource, TRUE)) return STATUS_CANT_WAIT;
        resource_ = resource;
        return STATUS_SUCCESS;
    }
    [[nodiscard]] NTSTATUS Shared(PERESOURCE resource)
    {
        if (!ExAcquireResourceSharedLite(resource, TRUE)) return STATUS_CANT_WAIT;
        resource_ = resource;
        return STATUS_SUCCESS;
    }
    // For a paging read: waits for an exclusive owner alone, not for those who wait to become one. Whoever owns the
    // resource shared may be waiting for the page.
    [[nodiscard]] NTSTATUS SharedForPaging(PERESOURCE resource)
    {
        if (!ExAcquireSharedStarveExclusive(resource, TRUE)) return STATUS_CANT_WAIT;
        resource_ = resource;
        return STATUS_SUCCESS;
    }
    void Release()
    {
        if (resource_) ExReleaseResourceLite(resource_);
        resource_ = nullptr;
    }

private:
    PERESOURCE resource_ = nullptr;
};

#if GV_CHECKED
inline void GvAssert(bool holds, const char* what, const char* file, ULONG line)
{
    if (!holds) RtlAssert(const_cast<char*>(what), const_cast<char*>(file), line, nullptr);
}
#define GV_ASSERT(condition) GvAssert((condition), #condition, __FILE__, __LINE__)
#else
#define GV_ASSERT(condition) static_cast<void>(0)
#endif

// By this thread.
#define GV_ASSERT_HELD_EXCLUSIVE(resource) GV_ASSERT(ExIsResourceAcquiredExclusiveLite(resource))
#define GV_ASSERT_HELD(resource)           GV_ASSERT(ExIsResourceAcquiredSharedLite(resource))
// A nested request passes: the work around it may hold the lock, on its behalf.
#define GV_ASSERT_HELD_OR_NESTED(context, resource) \
    GV_ASSERT(!(context)->IsTopLevel || ExIsResourceAcquiredSharedLite(resource))
