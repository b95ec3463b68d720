// A booted host with the driver, and one mounted volume: what every command works on.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include <checker/verifier.h>
#include <workbench/host.h>
#include <workbench/trace.h>
#include <workbench/volume.h>

#include "gvnd/plugins.h"

namespace tool {

struct VolumeChoice {
    std::string Plugin = "memfs"; // as ChoosePlugin takes it
    bool ReadOnly = false;
    uint64_t Capacity = 0; // of memfs, in bytes; 0 is its own default
    std::string Sddl = {}; // who may open the device; empty: everybody
    bool Verify = false;   // each call of the plugin is held to its contract, and a breach printed
};

class Session {
public:
    // Boots, loads the driver or the kernel image of it, prints each line of the trace if asked to.
    explicit Session(bool trace, const std::string& image = workbench::ImageOfEnvironment("GVND_IMAGE"));
    // Ends what is still there; Finish tells what was left.
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Fetches the service table from the control device as a plugin does, and mounts.
    void Mount(const VolumeChoice& choice);
    // Asks for the unmount and waits for it. All handles must be closed.
    void Unmount();
    bool Mounted() const { return volume_.has_value(); }

    // "\??\Gvnd" and the path; '/' and '\' both separate.
    std::string NtPath(const std::string& path) const;

    // "\??\Gvnd", which opens the volume itself.
    std::string VolumeName() const;

    // Links. Every open follows them, so what is done with a link itself goes past the driver, which keeps nothing of
    // a link between two requests. All are paths of the volume.
    void MakeLink(const std::string& path, const std::string& target);
    std::string ReadLink(const std::string& path);
    void RemoveLink(const std::string& path);

    // What the driver asked of the plugin.
    layer::PluginLayer& Plugin() { return volume_->Plugin(); }

    // Requests that the driver has been sent, of all kinds, since it was loaded.
    uint64_t Requests() const;

    // Of a volume that is verified: a rule was broken.
    bool PluginAtFault() const { return atFault_; }

    void SetTrace(workbench::TracePrinting what);
    // Unmounts, unloads, shuts down; what leaked.
    workbench::Report Finish();

private:
    void MakePlugin(const VolumeChoice& choice);
    void DestroyPlugin();

    workbench::Host host_;
    ChosenPlugin plugin_; // its code outlives what is below
    PluginOps* operations_ = nullptr;
    std::atomic<bool> atFault_{false};
    std::unique_ptr<checker::Verifier> verifier_;
    std::optional<workbench::Volume> volume_;
};

} // namespace tool
