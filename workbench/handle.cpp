// Handles and events.
#include "workbench/handle.h"

#include "workbench/failure.h"

namespace workbench {

NTSTATUS Handle::Close()
{
    const HANDLE handle = std::exchange(handle_, nullptr);
    if (!handle) return STATUS_SUCCESS;
    const bool isKernelHandle = reinterpret_cast<LONG_PTR>(handle) < 0;
    return isKernelHandle ? ZwClose(handle) : NtClose(handle);
}

Event::Event()
{
    Require("make an event", NtCreateEvent(handle_.Out(), EVENT_ALL_ACCESS, nullptr, SynchronizationEvent, FALSE));
}

void Event::Wait() const { Require("wait for an event", NtWaitForSingleObject(handle_.Get(), FALSE, nullptr)); }

bool Event::Poll() const
{
    LARGE_INTEGER now = {};
    return NtWaitForSingleObject(handle_.Get(), FALSE, &now) == STATUS_SUCCESS;
}

} // namespace workbench
