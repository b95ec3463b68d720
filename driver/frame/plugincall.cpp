// What of the plugin protocol is not a template.

#include "frame/plugincall.h"

NTSTATUS GvCheckPluginOpsVersion(const PluginOps* operations)
{
    if (operations->Version == GVND_PLUGIN_VERSION) return STATUS_SUCCESS;
    GV_TRACE(GvTraceNotable, "ERR: unsupported plugin-op version: %d, needed: %d\n", operations->Version,
             GVND_PLUGIN_VERSION);
    return STATUS_INVALID_PARAMETER;
}

NTSTATUS GvCheckPluginStatus(const char* operation, NTSTATUS status)
{
    if (status != STATUS_PENDING) return status;
    GV_TRACE(GvTraceError, "ERR: plugin %s(): 0x%x, an operation must not pend\n", operation, status);
    return STATUS_UNSUCCESSFUL;
}

NTSTATUS GvCheckPluginCount(const char* operation, ULONG count, ULONG asked)
{
    if (count <= asked) return STATUS_SUCCESS;
    GV_TRACE(GvTraceError, "ERR: plugin %s(): %d bytes, of %d asked for\n", operation, count, asked);
    return STATUS_UNSUCCESSFUL;
}

NTSTATUS GvCheckPluginName(const char* operation, const WCHAR* name, ULONG length)
{
    if (length <= MAXUSHORT && length % sizeof(WCHAR) == 0 && (name || length == 0)) return STATUS_SUCCESS;
    GV_TRACE(GvTraceError, "ERR: plugin %s(): a name of %d bytes\n", operation, length);
    return STATUS_UNSUCCESSFUL;
}
