// What code of an image does in place because the platform lets a driver do it: reading the IRQL from a control
// register and the time from a page at a fixed address. A process may do neither; such instructions fault, and are
// carried out by the fault handler. A fault costs microseconds, and a driver reads the IRQL several times in every
// request, so those reads are replaced before the image runs.
#pragma once

#include <ucontext.h>

#include "image/module.h"

namespace nthost::image {

// Makes of each read of the IRQL one of a register that holds it too (ke/thread.h), where the processor has that; both
// instructions have four bytes. The module's code must be writable. A read is known by its bytes.
void ReplaceIrqlReads(Module* module);

// Whether the instruction at the fault was one of an image's that is known here; the thread then goes on behind it.
bool EmulateInstruction(ucontext_t* fault, const void* address);

} // namespace nthost::image
