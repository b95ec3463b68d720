// What images may import: the kernel's routines and variables by name.
#pragma once

namespace nthost::image {

// The address of the routine, or of the variable. Null for what nthost does not have, for what a test hides
// (nthost/routines.h), and for any module but the kernel.
void* FindExport(const char* module, const char* name);

} // namespace nthost::image
