// The plugin's entry. Its argument is the directory; "ro:" in front makes a volume that takes no changes. The event
// that an unmount signals belongs to the volume.
#include <gvnd/plugin_entry.h>

#include "errors.h"
#include "hostfs.h"
#include "volume.h"

namespace hostfs {
namespace {

using posixfs::Contained;
using posixfs::Volume;

NTSTATUS NTAPI Create(const char* arguments, PluginOps** operations)
{
    *operations = nullptr;
    return Contained([&] {
        std::string directory = arguments;
        const bool readOnly = directory.starts_with("ro:");
        if (readOnly) directory.erase(0, 3);
        HostFsOptions options = {};
        options.Root = directory.c_str();
        options.ReadOnly = readOnly;
        return HostFsCreate(options, operations);
    });
}

VOID NTAPI WaitUntilUnmounted(PluginOps* operations) { Volume::From(operations->PluginContext).WaitUntilUnmounted(); }

VOID NTAPI Destroy(PluginOps* operations) { HostFsDestroy(operations); }

constexpr GvndPlugin kPlugin = {
    GVND_PLUGIN_ENTRY_VERSION, 0,      "hostfs",           "a directory of this machine",
    "[ro:]DIRECTORY",          Create, WaitUntilUnmounted, Destroy,
};

} // namespace
} // namespace hostfs

extern "C" const GvndPlugin* GvndGetPlugin(VOID) { return &hostfs::kPlugin; }
