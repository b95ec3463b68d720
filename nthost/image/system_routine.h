// Kernel routines and variables by name, for MmGetSystemRoutineAddress and for the imports of images.
#pragma once

#include <string>

namespace nthost::image {

struct SystemRoutine {
    void* Address;
    bool IsRoutine; // not a variable
};

// Null for a name that is not known or that a test hides.
SystemRoutine FindSystemRoutine(const std::string& name);

} // namespace nthost::image
