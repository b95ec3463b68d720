// The one setting: "NumVcbWorkers" in the driver's service key, read once at load.

#include "entry/entry.h"

#include "frame/handle.h"
#include "frame/trace.h"

namespace {

constexpr char kName[] = "GvGetVcbThreadPoolSize";
constexpr ULONG kDefaultPoolSize = 16;
constexpr ULONG kMaximumPoolSize = 511;

// The fixed record, which already has room for one byte of data, and a DWORD behind it.
struct WorkersValue {
    KEY_VALUE_PARTIAL_INFORMATION Information;
    ULONG Room;
};
static_assert(sizeof(WorkersValue) == 20);

[[nodiscard]] NTSTATUS OpenServiceKey(PUNICODE_STRING path, GvOwnedHandle* key)
{
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, path, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    const NTSTATUS status = ZwOpenKey(key->Out(), KEY_READ, &attributes);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS(kName, "ZwOpenKey", status);
    return status;
}

// True, with *size set, only for a REG_DWORD in range.
bool ReadPoolSize(PUNICODE_STRING registryPath, ULONG* size)
{
    GvOwnedHandle key;
    if (!NT_SUCCESS(OpenServiceKey(registryPath, &key))) return false;

    UNICODE_STRING name = GvLiteral(L"NumVcbWorkers");
    WorkersValue value = {};
    ULONG length = 0;
    const NTSTATUS status =
        ZwQueryValueKey(key.Get(), &name, KeyValuePartialInformation, &value, sizeof(value), &length);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS(kName, "ZwQueryValueKey", status);
        return false;
    }
    if (value.Information.Type != REG_DWORD) {
        GV_TRACE_AS(kName, GvTraceError, "ERR: value type: 0x%x\n", value.Information.Type);
        return false;
    }
    ULONG found;
    RtlCopyMemory(&found, value.Information.Data, sizeof(found));
    if (found < 1 || found > kMaximumPoolSize) {
        GV_TRACE_AS(kName, GvTraceError, "bad user-specified pool size: %d, using default: %d\n", found,
                    kDefaultPoolSize);
        return false;
    }
    *size = found;
    return true;
}

} // namespace

void GvGetVcbThreadPoolSize(PUNICODE_STRING registryPath, ULONG* size)
{
    if (ReadPoolSize(registryPath, size)) {
        GV_TRACE(GvTraceFlow, "using user-specified vcb pool size: %d\n", *size);
        return;
    }
    *size = kDefaultPoolSize;
    GV_TRACE(GvTraceFlow, "using default vcb pool size: %d\n", *size);
}
