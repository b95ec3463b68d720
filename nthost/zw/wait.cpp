// Waits by handle. Each object waited for is referenced from before the wait until after it, so a handle may be closed
// meanwhile.
#include <cstring>

#include "ob/handle.h"
#include "ob/service.h"
#include "ob/object.h"
#include "ob/capture.h"

namespace nthost::zw {

namespace {

// Objects of one wait; drops its references at the end.
class WaitSet {
public:
    WaitSet() = default;
    ~WaitSet()
    {
        for (ULONG i = 0; i < count_; ++i) ObDereferenceObject(bodies_[i]);
    }
    WaitSet(const WaitSet&) = delete;
    WaitSet& operator=(const WaitSet&) = delete;

    [[nodiscard]] NTSTATUS Add(HANDLE handle, KPROCESSOR_MODE mode)
    {
        PVOID body;
        const NTSTATUS status = ob::ReferenceObjectByHandle(handle, SYNCHRONIZE, nullptr, mode, &body, nullptr);
        if (!NT_SUCCESS(status)) return status;
        bodies_[count_] = body;
        const POBJECT_TYPE type = ob::TypeOf(body);
        waitable_[count_++] = static_cast<char*>(body) + type->WaitOffset;
        return type->UsesDispatcherHeader ? STATUS_SUCCESS : STATUS_OBJECT_TYPE_MISMATCH;
    }

    bool HasDuplicates() const
    {
        for (ULONG i = 0; i < count_; ++i)
            for (ULONG j = 0; j < i; ++j)
                if (bodies_[i] == bodies_[j]) return true;
        return false;
    }

    PVOID* Waitable() { return waitable_; }
    PKWAIT_BLOCK Blocks() { return reinterpret_cast<PKWAIT_BLOCK>(blocks_); }

private:
    static constexpr size_t BlockSize = 48; // of a public wait block
    ULONG count_ = 0;
    PVOID bodies_[MAXIMUM_WAIT_OBJECTS];
    PVOID waitable_[MAXIMUM_WAIT_OBJECTS];
    alignas(16) char blocks_[MAXIMUM_WAIT_OBJECTS * BlockSize];
};

// What a kernel-mode caller points at is not probed, but a bad pointer ends in a status all the same.
NTSTATUS Capture(void* to, const void* from, size_t length, ULONG alignment, KPROCESSOR_MODE mode)
{
    if (mode != KernelMode) return ob::CopyFromUser(to, from, length, alignment, mode);
    return ke::Guarded([&] { memcpy(to, from, length); });
}

// Null for no timeout, else the captured value.
NTSTATUS CaptureTimeout(PLARGE_INTEGER from, LARGE_INTEGER* value, PLARGE_INTEGER* timeout, KPROCESSOR_MODE mode)
{
    *timeout = from ? value : nullptr;
    return from ? Capture(value, from, sizeof *value, ob::UserAlignment<LARGE_INTEGER>, mode) : STATUS_SUCCESS;
}

NTSTATUS WaitForSingle(KPROCESSOR_MODE mode, HANDLE handle, BOOLEAN alertable, PLARGE_INTEGER userTimeout)
{
    LARGE_INTEGER value;
    PLARGE_INTEGER timeout;
    if (const NTSTATUS status = CaptureTimeout(userTimeout, &value, &timeout, mode); !NT_SUCCESS(status)) return status;
    WaitSet set;
    if (const NTSTATUS status = set.Add(handle, mode); !NT_SUCCESS(status)) return status;
    return KeWaitForSingleObject(set.Waitable()[0], UserRequest, mode, alertable, timeout);
}

NTSTATUS WaitForMultiple(KPROCESSOR_MODE mode, ULONG count, const HANDLE* userHandles, WAIT_TYPE type,
                         BOOLEAN alertable, PLARGE_INTEGER userTimeout)
{
    if (count == 0 || count > MAXIMUM_WAIT_OBJECTS) return STATUS_INVALID_PARAMETER_1;
    if (type != WaitAll && type != WaitAny) return STATUS_INVALID_PARAMETER_3;
    LARGE_INTEGER value;
    PLARGE_INTEGER timeout;
    if (const NTSTATUS status = CaptureTimeout(userTimeout, &value, &timeout, mode); !NT_SUCCESS(status)) return status;
    HANDLE handles[MAXIMUM_WAIT_OBJECTS];
    NTSTATUS status = Capture(handles, userHandles, count * sizeof(HANDLE), ob::UserAlignment<HANDLE>, mode);
    if (!NT_SUCCESS(status)) return status;

    WaitSet set;
    for (ULONG i = 0; i < count; ++i)
        if (status = set.Add(handles[i], mode); !NT_SUCCESS(status)) return status;
    // All at once could never be had of one synchronization event asked for twice.
    if (type == WaitAll && set.HasDuplicates()) return STATUS_INVALID_PARAMETER_MIX;
    return KeWaitForMultipleObjects(count, set.Waitable(), type, UserRequest, mode, alertable, timeout, set.Blocks());
}

} // namespace

} // namespace nthost::zw

NTHOST_SERVICE_PAIR(WaitForSingleObject, nthost::zw::WaitForSingle,
                    (HANDLE Handle, BOOLEAN Alertable, PLARGE_INTEGER Timeout), Handle, Alertable, Timeout)
NTHOST_SERVICE_PAIR(WaitForMultipleObjects, nthost::zw::WaitForMultiple,
                    (ULONG Count, HANDLE Handles[], WAIT_TYPE WaitType, BOOLEAN Alertable, PLARGE_INTEGER Timeout),
                    Count, Handles, WaitType, Alertable, Timeout)
