// Making and ending a volume. Needs no lock: a volume is used by others only while it
// exists.
#include "hostfs.h"

#include "errors.h"
#include "host_store.h"
#include "operations.h"
#include "volume.h"

#include <sys/resource.h>

namespace hostfs {
namespace {

using posixfs::Volume;

// Best effort: with the soft limit as it is, opens fail sooner, with a status that says so.
void RaiseDescriptorLimit()
{
    struct rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
    limit.rlim_cur = limit.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &limit);
}

std::string LastComponent(const std::string& path) { return path.substr(path.find_last_of('/') + 1); }

NTSTATUS CreateVolume(const HostFsOptions& options, PluginOps** operations)
{
    if (!options.Root || !*options.Root) return STATUS_INVALID_PARAMETER;
    const auto method = options.Resolver == HostFsResolver::Best ? Beneath::Method::OneCall : Beneath::Method::Walk;
    std::unique_ptr<Beneath> root;
    if (const NTSTATUS status = Beneath::Create(options.Root, method, &root); !NT_SUCCESS(status)) return status;
    RaiseDescriptorLimit();
    std::string label = options.Label && *options.Label ? options.Label : LastComponent(root->RootPaths().front());
    auto volume =
        std::make_unique<Volume>(std::make_unique<HostStore>(std::move(root)), options.ReadOnly, std::move(label));
    if (const NTSTATUS status = volume->Start(); !NT_SUCCESS(status)) return status;
    *operations = volume.release()->Operations();
    return STATUS_SUCCESS;
}

} // namespace

} // namespace hostfs

NTSTATUS HostFsCreate(const HostFsOptions& options, PluginOps** operations)
{
    *operations = nullptr;
    return posixfs::Contained([&] { return hostfs::CreateVolume(options, operations); });
}

void HostFsDestroy(PluginOps* operations)
{
    if (operations) delete &posixfs::Volume::From(operations->PluginContext);
}

NTSTATUS HostFsMakeLink(PluginOps* operations, PCUNICODE_STRING path, PCUNICODE_STRING target)
{
    return posixfs::Contained(
        [&] { return posixfs::MakeLink(posixfs::Volume::From(operations->PluginContext), path, target); });
}
