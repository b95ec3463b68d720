// What images may import: the kernel's routines and variables by name.
#pragma once

namespace nthost::image {

struct ExportedAddress {
    void* Address;
    bool IsRoutine;
};

// The address of the routine, or of the variable. Null for what nthost does not have, for what a test hides
// (nthost/routines.h), and for any module but the kernel.
ExportedAddress FindExport(const char* module, const char* name);

} // namespace nthost::image
