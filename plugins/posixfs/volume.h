// One served store: its root, its options, its open objects and the listings that handles share. An operation looks
// its handle up, and holds the object while it works, so that a Close beside it takes effect when it is done.
//
// Handles are numbers that are never given out twice; a closed one is unknown for good. tableLock_ guards the tables
// and is held for look-ups only.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <utility>

#include <gvnd/plugin.h>

#include "directory.h"
#include "metadata.h"
#include "node.h"

namespace posixfs {

// What a handle stands for. Without HasContents it can move no data: Access says nothing that takes more.
struct OpenObject {
    NodeRef At;
    posixfs::Kind Kind = Kind::File;
    PluginAccessMask Access = 0;
    bool HasContents = false;
    dev_t Device = 0;
    ino_t Inode = 0;

    std::once_flag ListingOnce;
    std::shared_ptr<DirListing> Listing; // directories, from the first listing on

    std::mutex EaLock;
    std::map<std::string, std::string> EaSpellings; // how removed attributes were spelled, by their NT name
};
using OpenObjectRef = std::shared_ptr<OpenObject>;

class Volume {
public:
    Volume(std::unique_ptr<Store> store, bool readOnly, std::string label);
    [[nodiscard]] static Volume& From(void* context) { return *static_cast<Volume*>(context); }

    [[nodiscard]] Store& Files() const { return *store_; }
    [[nodiscard]] bool ReadOnly() const { return readOnly_; }
    // STATUS_MEDIA_WRITE_PROTECTED for a volume that takes no changes.
    [[nodiscard]] NTSTATUS CheckWritable() const { return readOnly_ ? STATUS_MEDIA_WRITE_PROTECTED : STATUS_SUCCESS; }
    [[nodiscard]] const std::string& DefaultLabel() const { return label_; }
    [[nodiscard]] PluginOps* Operations() { return &operations_; }

    [[nodiscard]] bool IsRoot(dev_t device, ino_t inode) const { return device == rootDevice_ && inode == rootInode_; }
    // The first thing after construction; the volume is of no use if it fails.
    [[nodiscard]] NTSTATUS Start();

    void Unmounted() { KeSetEvent(&unmounted_, IO_NO_INCREMENT, FALSE); }
    void WaitUntilUnmounted() { KeWaitForSingleObject(&unmounted_, Executive, KernelMode, FALSE, nullptr); }

    [[nodiscard]] PluginFd Add(OpenObjectRef object);
    // Null for a handle that is not open.
    [[nodiscard]] OpenObjectRef Find(PluginFd fd) const;
    // False if it was not open.
    [[nodiscard]] bool Remove(PluginFd fd);

    [[nodiscard]] DirListing& ListingOf(OpenObject& directory);
    // Unique over the file systems that are mounted beneath the root, as far as 64 bits go.
    [[nodiscard]] ULONGLONG FileIdOf(const Facts& facts) const;

private:
    using Identity = std::pair<dev_t, ino_t>;

    PluginOps operations_;
    KEVENT unmounted_;
    std::unique_ptr<Store> store_;
    dev_t rootDevice_ = 0;
    ino_t rootInode_ = 0;
    bool readOnly_;
    std::string label_;

    mutable std::shared_mutex tableLock_;
    PluginFd lastFd_ = 0;
    std::unordered_map<PluginFd, OpenObjectRef> objects_;
    std::map<Identity, std::weak_ptr<DirListing>> listings_; // an entry lives as long as a handle uses it
};

constexpr ULONG kPoolTag = 0x73666f68; // "hofs" in memory

// A block that passes to the driver; null when there is no pool.
template <typename Record>
[[nodiscard]] Record* AllocateRecord(size_t bytes = sizeof(Record))
{
    return static_cast<Record*>(ExAllocatePoolWithTag(PagedPool, bytes, kPoolTag));
}

} // namespace posixfs
