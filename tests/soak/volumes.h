// The volumes of a soak: two in memory, one of which is soon full, and a directory of this machine. One can go and come
// back while it is used.
#pragma once

#include <array>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <gvnd/memfs.h>
#include <hostfs/hostfs.h>
#include <workbench/plugin_table.h>
#include <workbench/volume.h>

#include "soak/run.h"

namespace soak {

class Volumes {
public:
    // directory is empty, and stays the caller's.
    Volumes(workbench::Host& host, const std::filesystem::path& directory);
    ~Volumes();
    Volumes(const Volumes&) = delete;
    Volumes& operator=(const Volumes&) = delete;

    const std::vector<std::string>& Links() const { return links_; }
    // Calls the body with the layer of one, unless that is gone at the moment.
    template <typename Body>
    void WithLayer(unsigned which, Body body)
    {
        const std::lock_guard lock(mutex_);
        if (mounted_[which]) body(mounted_[which]->Plugin());
    }
    // Asks for the unmount, waits until the last handle has gone, and mounts a new one in its place: files in memory
    // are gone, those of the directory are there again.
    void Remount(unsigned which);
    uint64_t PluginCalls();
    // Of all volumes.
    ULONG ControlBlocks();
    // While nothing is open: every file goes behind the driver's back. What came in the way, or nothing.
    std::string Empty();

    static constexpr unsigned kCount = 3, kDirectory = 2;

private:
    void MakeTable(unsigned which);
    void DestroyTable(unsigned which);
    void Mount(unsigned which);
    ULONG ControlBlocksOf(unsigned which) const;
    std::string EmptyBelow(const workbench::PluginTable& table, const std::string& directory);

    workbench::Host& host_;
    const std::filesystem::path directory_;
    std::vector<std::string> links_;
    std::array<PluginOps*, kCount> tables_{};
    std::array<std::unique_ptr<workbench::Volume>, kCount> mounted_;
    uint64_t callsBefore_ = 0; // of layers that are gone
    std::mutex mutex_;         // of mounted_
    std::mutex change_;        // held from one state with all mounted to the next
};

} // namespace soak
