// The kernel's requests on their way to the bridge: attached threads, interrupts, exceptions, and the trace of -d.
#pragma once

#include "gvnd/mount/bridge.h"

namespace tool::mount {

struct Server {
    Bridge& Files;
    Session& Volume;
    bool Debug; // each request with its answer, and the plugin operations since the last one
};

// The table for fuse_session_new, whose user data is a Server.
const fuse_lowlevel_ops& Operations();

} // namespace tool::mount
