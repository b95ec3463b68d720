// What code of an image does in place because the platform lets a driver do it: reading the IRQL from a control
// register and the time from a page at a fixed address. A process may do neither; such instructions fault, and are
// carried out by the fault handler.
#pragma once

#include <ucontext.h>

namespace nthost::image {

// Whether the instruction at the fault was one of an image's that is known here; the thread then goes on behind it.
bool EmulateInstruction(ucontext_t* fault, const void* address);

} // namespace nthost::image
