// The current IRQL is a control register on the platform, which drivers read in place and a process may not. Reads that
// can be replaced are, when an image is mapped; the others fault and are carried out here.
#pragma once

#include <ucontext.h>

#include "image/module.h"

namespace nthost::image {

// Replaces reads of the register in the module's code, which must be writable; jumps lead to *stubs, made executable
// within reach of the code and owned by the module.
void ReplaceIrqlReads(Module* module);

// Carries out a move from or to the register; false for any other instruction.
bool EmulateIrqlMove(ucontext_t* fault);

} // namespace nthost::image
