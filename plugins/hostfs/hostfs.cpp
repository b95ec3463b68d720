// Making and ending a volume, and its table of operations. Needs no lock: a volume is used by others only while it
// exists.
#include "hostfs.h"

#include "errors.h"
#include "operations.h"
#include "volume.h"

#include <sys/resource.h>

namespace hostfs {
namespace {

// Best effort: with the soft limit as it is, opens fail sooner, with a status that says so.
void RaiseDescriptorLimit()
{
    struct rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
    limit.rlim_cur = limit.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &limit);
}

NTSTATUS CreateVolume(const HostFsOptions& options, PluginOps** operations)
{
    if (!options.Root || !*options.Root) return STATUS_INVALID_PARAMETER;
    const auto method = options.Resolver == HostFsResolver::Best ? Beneath::Method::OneCall : Beneath::Method::Walk;
    std::unique_ptr<Beneath> root;
    if (const NTSTATUS status = Beneath::Create(options.Root, method, &root); !NT_SUCCESS(status)) return status;
    RaiseDescriptorLimit();
    *operations = std::make_unique<Volume>(std::move(root), options).release()->Operations();
    return STATUS_SUCCESS;
}

} // namespace

PluginOps MakeOperations(Volume* volume)
{
    PluginOps operations = {};
    operations.Version = GVND_PLUGIN_VERSION;
    operations.PluginContext = volume;
    operations.OnUnmounted = [](void* context) NTAPI { Volume::From(context).Unmounted(); };
    operations.Lookup = Lookup;
    operations.Open = Open;
    operations.OpenDir = OpenDir;
    operations.Create = Create;
    operations.CreateDir = CreateDir;
    operations.Read = Read;
    operations.Write = Write;
    operations.ReadDirEntry = ReadDirEntry;
    operations.GetInfo = GetInfo;
    operations.SetFileSize = SetFileSize;
    operations.SetAttr = SetAttr;
    operations.SetTime = SetTime;
    operations.GetVolInfo = GetVolInfo;
    operations.SetVolLabel = SetVolLabel;
    operations.Close = Close;
    operations.Rename = Rename;
    operations.Delete = Delete;
    operations.FlushVol = FlushVol;
    operations.FlushFile = FlushFile;
    operations.ListEa = ListEa;
    operations.GetEa = GetEa;
    operations.SetEa = SetEa;
    operations.DeleteEa = DeleteEa;
    operations.ReadLink = ReadLink;
    return operations;
}

} // namespace hostfs

NTSTATUS HostFsCreate(const HostFsOptions& options, PluginOps** operations)
{
    *operations = nullptr;
    return hostfs::Contained([&] { return hostfs::CreateVolume(options, operations); });
}

void HostFsDestroy(PluginOps* operations)
{
    if (operations) delete &hostfs::Volume::From(operations->PluginContext);
}

NTSTATUS HostFsMakeLink(PluginOps* operations, PCUNICODE_STRING path, PCUNICODE_STRING target)
{
    return hostfs::Contained(
        [&] { return hostfs::MakeLink(hostfs::Volume::From(operations->PluginContext), path, target); });
}
