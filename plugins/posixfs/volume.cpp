// The tables of a volume (volume.h). tableLock_ is never held across a call of the store but the closing of
// what drops out of a table, which happens after it was released.
#include "volume.h"

#include "errors.h"
#include "operations.h"

#include <algorithm>

namespace posixfs {

Volume::Volume(std::unique_ptr<Store> store, bool readOnly, std::string label)
    : operations_(MakeOperations(this)), store_(std::move(store)), readOnly_(readOnly), label_(std::move(label))
{
    KeInitializeEvent(&unmounted_, NotificationEvent, FALSE);
}

NTSTATUS Volume::Start()
{
    NodeStat root;
    if (const int error = store_->Root().Stat(&root); error != 0) return StatusOf(error);
    rootDevice_ = root.Device;
    rootInode_ = root.Inode;
    return STATUS_SUCCESS;
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
    return facts.Inode ^ ((facts.Device - rootDevice_) * kSpread);
}

} // namespace posixfs
