// Steps outwards over one frame: of an image by its unwind codes, of the host by its DWARF tables. Both keep all
// registers that a callee of either convention keeps, so an exception handler of an image finds its own values again
// even behind frames of the host. Takes no locks; runs in fault handlers.
#pragma once

#include <ntifs.h>

#include "image/context.h"
#include "image/module.h"

namespace nthost::image {

using Handler = int(NTAPI*)(struct ExceptionRecord*, uint64_t frame, Context*, struct DispatcherContext*);

struct ImageFrame {
    uint64_t Establisher; // the stack pointer behind the prologue, or what the frame register stands for
    const RuntimeFunction* Function;
    Handler Routine; // the function's handler, unless the frame is still in its prologue
    const void* HandlerData;
    bool ForExceptions, ForUnwinding;
};

// The registers become the caller's. False for unwind data that makes no sense.
bool StepImage(const Module& module, Context& context, ImageFrame* frame);

struct HostFrame {
    uint64_t Canonical; // the stack pointer before the call
};

// *exact: whether Rip is the instruction itself and not behind a call; for the caller's frame afterwards. False where
// no table knows the function.
bool StepHost(Context& context, bool* exact, HostFrame* frame);

} // namespace nthost::image
