// An image's unwind codes said once more in DWARF, for all that walks stacks by .eh_frame: the debugger, and the
// compilers' run-time library when a report wants a stack.
#pragma once

#include <cstdint>
#include <vector>

#include "image/module.h"

namespace nthost::image {

// A whole .eh_frame section, ended by a zero word. Functions whose codes it cannot express are left out.
std::vector<uint8_t> MakeFrames(const Module& module);

} // namespace nthost::image
