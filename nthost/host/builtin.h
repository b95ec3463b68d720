// Devices that every host has.
#pragma once

namespace nthost::host {

// After io::Boot.
void MakeBuiltinDevices();
// Before objects are reported as left.
void RemoveBuiltinDevices();

} // namespace nthost::host
