// `gvnd mount`: a volume as a file system of this machine, until it is unmounted.
#pragma once

#include <string>
#include <vector>

#include "gvnd/session.h"

namespace tool {

struct MountOptions {
    VolumeChoice Volume;
    std::string Directory;
    std::vector<std::string> Words; // of -o, comma-separated
    bool Foreground = false;        // also with Volume.Verify
    bool Debug = false;             // stays in the foreground
    bool Trace = false;
};

// Returns an exit code, once the volume is unmounted or, in the parent of a background process, once it is mounted.
int RunMount(const MountOptions& options);

} // namespace tool
