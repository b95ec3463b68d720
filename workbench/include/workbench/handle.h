// Handles that close themselves, and events.
#pragma once

#include <utility>

#include <ntifs.h>

namespace workbench {

class Handle {
public:
    Handle() = default;
    explicit Handle(HANDLE handle) : handle_(handle) {}
    Handle(Handle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    Handle& operator=(Handle&& other) noexcept
    {
        Close();
        handle_ = std::exchange(other.handle_, nullptr);
        return *this;
    }
    ~Handle() { Close(); }
    HANDLE Get() const { return handle_; }
    // For a service that fills it.
    HANDLE* Out()
    {
        Close();
        return &handle_;
    }
    // Somebody else closes it.
    HANDLE Release() { return std::exchange(handle_, nullptr); }
    // The status of NtClose; STATUS_SUCCESS for none. The calling thread's process must be the one that opened it.
    NTSTATUS Close();

private:
    HANDLE handle_ = nullptr;
};

// An auto-reset event.
class Event {
public:
    Event();
    HANDLE Get() const { return handle_.Get(); }
    void Wait() const;
    // Takes the signal if it is there.
    bool Poll() const;

private:
    Handle handle_;
};

} // namespace workbench
