// Shows images to a debugger that is attached or comes later, by the interface that gdb has for code made at run time.
#pragma once

#include "image/module.h"

namespace nthost::image {

// Makes the module's Object, a small ELF file in memory with its functions' names and its unwind tables, and announces
// it. Not thread-safe: the loader's lock is held.
void ShowToDebugger(Module* module);
void HideFromDebugger(Module* module);

} // namespace nthost::image
