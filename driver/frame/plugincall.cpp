// What of the plugin protocol is not a template.

#include "frame/plugincall.h"

NTSTATUS GvCheckPluginOpsVersion(const PluginOps* operations)
{
    if (operations->Version == GVND_PLUGIN_VERSION) return STATUS_SUCCESS;
    GV_TRACE(GvTraceNotable, "ERR: unsupported plugin-op version: %d, needed: %d\n", operations->Version,
             GVND_PLUGIN_VERSION);
    return STATUS_INVALID_PARAMETER;
}
