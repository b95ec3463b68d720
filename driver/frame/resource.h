// Holds an ERESOURCE until the end of the scope. The caller is in a critical region, or a system thread.
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
    void Release()
    {
        if (resource_) ExReleaseResourceLite(resource_);
        resource_ = nullptr;
    }

private:
    PERESOURCE resource_ = nullptr;
};
