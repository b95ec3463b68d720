// The tables of a volume (volume.h). tableLock_ is never held across a call of the Linux machine but the closing of
// what drops out of a table, which happens after it was released.
#include "volume.h"

#include "operations.h"

#include <algorithm>

namespace hostfs {
namespace {

std::string LastComponent(const std::string& path) { return path.substr(path.find_last_of('/') + 1); }

} // namespace

Volume::Volume(std::unique_ptr<Beneath> root, const HostFsOptions& options)
    : operations_(MakeOperations(this)), root_(std::move(root)), readOnly_(options.ReadOnly),
      label_(options.Label && *options.Label ? options.Label : LastComponent(root_->RootPaths().front()))
{
    KeInitializeEvent(&unmounted_, NotificationEvent, FALSE);
}

PluginFd Volume::Add(OpenObjectRef object)
{
    const std::lock_guard guard(tableLock_);
    objects_.emplace(lastFd_ + 1, std::move(object));
    return ++lastFd_;
}

OpenObjectRef Volume::Find(PluginFd fd) const
{
    const std::shared_lock guard(tableLock_);
    const auto found = objects_.find(fd);
    return found == objects_.end() ? nullptr : found->second;
}

bool Volume::Remove(PluginFd fd)
{
    OpenObjectRef removed;
    const std::lock_guard guard(tableLock_);
    const auto found = objects_.find(fd);
    if (found == objects_.end()) return false;
    removed = std::move(found->second);
    objects_.erase(found);
    return true;
}

DirListing& Volume::ListingOf(OpenObject& directory)
{
    std::call_once(directory.ListingOnce, [&] {
        const std::lock_guard guard(tableLock_);
        std::erase_if(listings_, [](const auto& entry) { return entry.second.expired(); });
        std::weak_ptr<DirListing>& shared = listings_[{directory.Device, directory.Inode}];
        directory.Listing = shared.lock();
        if (!directory.Listing) shared = directory.Listing = std::make_shared<DirListing>();
    });
    return *directory.Listing;
}

ULONGLONG Volume::FileIdOf(const Facts& facts) const
{
    constexpr ULONGLONG kSpread = 0x9e3779b97f4a7c15;
    return facts.Inode ^ ((facts.Device - root_->Device()) * kSpread);
}

} // namespace hostfs
