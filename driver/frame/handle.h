// Owns a kernel handle.
#pragma once

#include "frame/nt.h"

class GvOwnedHandle {
public:
    GvOwnedHandle() = default;
    GvOwnedHandle(const GvOwnedHandle&) = delete;
    GvOwnedHandle& operator=(const GvOwnedHandle&) = delete;
    ~GvOwnedHandle()
    {
        if (handle_) ZwClose(handle_);
    }
    HANDLE Get() const { return handle_; }
    HANDLE* Out() { return &handle_; }

private:
    HANDLE handle_ = nullptr;
};
