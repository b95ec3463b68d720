// Start and stop of what the system services keep: the registry.
#pragma once

namespace nthost::zw {

// After ob::Boot; makes \Registry\Machine. Shutdown before ob::Shutdown, with all key handles closed.
void Boot();
void Shutdown();

} // namespace nthost::zw
