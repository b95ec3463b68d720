// Exceptions that meet frames of images: the search for a handler, the unwinding to it, and the language handler that
// images import. Frames of the host in between are passed over as a guard's jump does: nothing of theirs is destroyed.
#pragma once

#include <ntifs.h>

#include "image/context.h"
#include "image/unwind.h"
#include "ke/exceptions.h"

namespace nthost::image {

// Laid out as on the platform: filters read them.
struct ExceptionRecord {
    uint32_t Code, Flags;
    ExceptionRecord* Inner;
    uint64_t Address;
    uint32_t ParameterCount, Padding;
    uint64_t Parameters[15];
};

struct Dispatch;

struct DispatcherContext {
    uint64_t ControlPc, ImageBase;
    const RuntimeFunction* Function;
    uint64_t EstablisherFrame, TargetIp;
    Context* ContextRecord;
    Handler LanguageHandler;
    const void* HandlerData;
    void* HistoryTable;
    uint32_t ScopeIndex, Padding;
    Dispatch* Owner; // ours; not part of the platform's
};

// __C_specific_handler: __try with __except or __finally.
int NTAPI CSpecificHandler(ExceptionRecord* record, uint64_t frame, Context* context, DispatcherContext* dispatcher);

// Looks for an image's handler or a guard, whichever is nearer, and goes on there. Returns if there is neither.
void DispatchException(const ke::Exception& exception);

} // namespace nthost::image
