// A booted host with the driver, and one mounted volume: what every command works on.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <ntifs.h>

#include <layer/layer.h>

#include "gvnd/plugins.h"

namespace tool {

struct VolumeChoice {
    std::string Plugin = "memfs"; // as ChoosePlugin takes it
    bool ReadOnly = false;
    uint64_t Capacity = 0; // of memfs, in bytes; 0 is its own default
    std::string Sddl = {}; // who may open the device; empty: everybody
};

class Session {
public:
    // Boots, loads the driver, prints each line of the trace if asked to.
    explicit Session(bool trace);
    // Ends what is still there; Finish tells what was left.
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Fetches the service table from the control device as a plugin does, and mounts.
    void Mount(const VolumeChoice& choice);
    // Asks for the unmount and waits for it. All handles must be closed.
    void Unmount();
    bool Mounted() const { return device_ != nullptr; }

    // "\??\Gvnd" and the path; '/' and '\' both separate.
    std::string NtPath(const std::string& path) const;

    // "\??\Gvnd", which opens the volume itself.
    std::string VolumeName() const;
    static std::string VolumePath(const std::string& path);

    // Links. Every open follows them, so what is done with a link itself goes past the driver, which keeps nothing of
    // a link between two requests. All are paths of the volume.
    void MakeLink(const std::string& path, const std::string& target);
    std::string ReadLink(const std::string& path);
    void RemoveLink(const std::string& path);

    // What the driver asked of the plugin.
    layer::PluginLayer& Plugin() { return *layer_; }

    // Requests that the driver has been sent, of all kinds, since it was loaded.
    uint64_t Requests() const;

    void SetTrace(bool on);
    // Unmounts, unloads, shuts down; what leaked, one line each.
    std::vector<std::string> Finish();

private:
    struct Services;
    void FetchServices();
    void MakePlugin(const VolumeChoice& choice);
    void DestroyPlugin();

    ChosenPlugin plugin_; // its code outlives everything below
    PDRIVER_OBJECT driver_ = nullptr;
    const GvServices* services_ = nullptr;
    PluginOps* operations_ = nullptr;
    std::unique_ptr<layer::PluginLayer> layer_;
    PDEVICE_OBJECT device_ = nullptr;
    bool running_ = false;
};

} // namespace tool
