// For the end of the host.
#pragma once

namespace nthost::host {

// Drivers that are still loaded at shutdown are reported as objects; the next boot knows nothing of them.
void ForgetLoadedDrivers();

} // namespace nthost::host
