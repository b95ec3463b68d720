// The plugin's entry. Its argument says where the volume is (cluster.h).
#include <gvnd/plugin_entry.h>

#include "cluster.h"
#include "errors.h"
#include "volume.h"

namespace glusterfs {
namespace {

using posixfs::Contained;
using posixfs::StatusOf;
using posixfs::Volume;

NTSTATUS NTAPI Create(const char* arguments, PluginOps** operations)
{
    *operations = nullptr;
    return Contained([&]() -> NTSTATUS {
        Options options;
        if (!ParseOptions(arguments, &options)) return STATUS_INVALID_PARAMETER;
        std::unique_ptr<Cluster> cluster;
        if (const int error = Cluster::Connect(options, &cluster); error != 0) return StatusOf(error);
        auto volume = std::make_unique<Volume>(std::move(cluster), options.ReadOnly, options.Volume);
        if (const NTSTATUS status = volume->Start(); !NT_SUCCESS(status)) return status;
        *operations = volume.release()->Operations();
        return STATUS_SUCCESS;
    });
}

VOID NTAPI WaitUntilUnmounted(PluginOps* operations) { Volume::From(operations->PluginContext).WaitUntilUnmounted(); }

VOID NTAPI Destroy(PluginOps* operations) { delete &Volume::From(operations->PluginContext); }

constexpr GvndPlugin kPlugin = {
    GVND_PLUGIN_ENTRY_VERSION,
    0,
    "glusterfs",
    "a volume of GlusterFS servers",
    "[ro,][locks,][timeout=SECONDS,][cache=SECONDS,][log=FILE,]SERVER[:PORT]:/VOLUME[/DIRECTORY]",
    Create,
    WaitUntilUnmounted,
    Destroy,
};

} // namespace
} // namespace glusterfs

extern "C" GVND_PLUGIN_EXPORT const GvndPlugin* GvndGetPlugin(VOID) { return &glusterfs::kPlugin; }
