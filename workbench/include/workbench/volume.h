// A plugin's table, mounted, from construction to the unmount. Between driver and plugin stands a layer that knows what
// was called and can make calls fail (layer/layer.h).
#pragma once

#include <string>
#include <vector>

#include <layer/layer.h>

#include "workbench/file.h"
#include "workbench/host.h"

namespace workbench {

// A path of a volume, from its root: '/' and '\' both separate.
std::string VolumePath(const std::string& path);

class Volume {
public:
    // The driver must be loaded. The table must outlive the volume. A Failure if the mount fails.
    Volume(Host& host, const PluginOps* table, const MountOptions& options = {});
    // Unmounts, if that is still to do; a failure of it is printed.
    ~Volume();
    Volume(const Volume&) = delete;
    Volume& operator=(const Volume&) = delete;

    // The door shuts; returns once OnUnmounted has been called, so all handles must be closed, here or elsewhere.
    void Unmount();
    // Somebody has asked for the unmount already, and waits for it.
    void Forget() { device_ = nullptr; }
    bool Mounted() const { return device_ != nullptr; }

    // "\??\Name", which opens the volume itself, and with a path behind it.
    const std::string& Link() const { return link_; }
    std::string NtPath(const std::string& path) const { return link_ + VolumePath(path); }
    PDEVICE_OBJECT Device() const { return device_; }
    layer::PluginLayer& Plugin() { return layer_; }

    File Open(const std::string& path, const OpenRequest& how = {.Access = kReading}) const
    {
        return OpenFile(NtPath(path), how);
    }
    std::vector<Entry> List(const std::string& path, const std::string& pattern = {}) const;

private:
    Host& host_;
    std::string link_;
    layer::PluginLayer layer_;
    PDEVICE_OBJECT device_ = nullptr;
};

} // namespace workbench
