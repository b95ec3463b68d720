// The plugin's entry, and its arguments: "capacity=SIZE,label=TEXT", either or none, with SIZE in bytes or as 512M or
// 4G. A label ends at a comma.

#include <gvnd/memfs.h>
#include <gvnd/plugin_entry.h>

#include "settings.h"

namespace memfs {
namespace {

NTSTATUS NTAPI Create(const char* arguments, PluginOps** ops)
{
    *ops = nullptr;
    Settings settings;
    if (const NTSTATUS status = ReadSettings(arguments, &settings); !NT_SUCCESS(status)) return status;
    MemFsOptions options = {};
    options.CapacityBytes = settings.Capacity;
    options.Label = settings.Label.Length != 0 ? &settings.Label : nullptr;
    return MemFsCreate(&options, ops);
}

constexpr GvndPlugin kPlugin = {
    GVND_PLUGIN_ENTRY_VERSION,
    0,
    "memfs",
    "files in memory, gone with the volume",
    "[capacity=SIZE][,label=TEXT]",
    Create,
    MemFsWaitUntilUnmounted,
    MemFsDestroy,
};

} // namespace
} // namespace memfs

extern "C" const GvndPlugin* GvndGetPlugin(VOID) { return &memfs::kPlugin; }
