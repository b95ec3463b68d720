// Unwind codes of images.
#include "image/unwind.h"

#include <cstring>

#include "image/unwind_codes.h"

namespace nthost::image {

namespace {

uint64_t Load(uint64_t address) { return *reinterpret_cast<const uint64_t*>(address); }

// Whether the prologue has set the frame register at this offset of the function.
bool FrameIsSet(const UnwindInfo& info, uint32_t offset)
{
    UnwindCode code;
    for (unsigned i = 0; info.FrameRegister() && i < info.CodeCount && ReadCode(info, i, &code); i += code.Slots)
        if (code.Operation == SetFrame) return offset >= code.PrologueOffset;
    return false;
}

// Undoes what the prologue has done up to the offset, last step first.
bool UndoPrologue(const UnwindInfo& info, uint32_t offset, uint64_t frame, Context& context)
{
    uint64_t& rsp = context.Gpr[Rsp];
    UnwindCode code;
    for (unsigned i = 0; i < info.CodeCount; i += code.Slots) {
        if (!ReadCode(info, i, &code)) return false;
        if (code.PrologueOffset > offset) continue;
        switch (code.Operation) {
        case PushNonvolatile: context.Gpr[code.Register] = Load(rsp), rsp += 8; break;
        case AllocateLarge:
        case AllocateSmall: rsp += code.Amount; break;
        case SetFrame: rsp = frame; break;
        case SaveNonvolatile:
        case SaveFar: context.Gpr[code.Register] = Load(frame + code.Amount); break;
        case SaveVector:
        case SaveVectorFar:
            memcpy(&context.Vector[code.Register], reinterpret_cast<void*>(frame + code.Amount), sizeof(Xmm));
            break;
        }
    }
    return true;
}

bool StepFunction(const Module& module, Context& context, uint32_t offset, ImageFrame* frame)
{
    const RuntimeFunction* function = frame->Function;
    uint32_t within = offset - function->Begin;
    for (bool first = true;; first = false) {
        const auto* const info = reinterpret_cast<const UnwindInfo*>(module.Base + function->Unwind);
        if (info->Version() != 1 && info->Version() != 2) return false;
        const bool set = FrameIsSet(*info, within);
        const uint64_t base = set ? context.Gpr[info->FrameRegister()] - info->FrameOffset() : context.Gpr[Rsp];
        if (first) {
            frame->Establisher = base;
            frame->ForExceptions = info->Flags() & HandlesExceptions;
            frame->ForUnwinding = info->Flags() & HandlesUnwinding;
            if (within >= info->PrologueSize && !(info->Flags() & Continues) &&
                (frame->ForExceptions || frame->ForUnwinding)) {
                frame->Routine = reinterpret_cast<Handler>(module.Base + *info->Tail());
                frame->HandlerData = info->Tail() + 1;
            }
        }
        if (!UndoPrologue(*info, within, base, context)) return false;
        if (!(info->Flags() & Continues)) return true;
        function = reinterpret_cast<const RuntimeFunction*>(info->Tail());
        within = UINT32_MAX; // its prologue is long done
    }
}

} // namespace

bool StepImage(const Module& module, Context& context, ImageFrame* frame)
{
    *frame = {};
    const uint32_t offset = module.OffsetOf(context.Rip);
    frame->Function = FindFunction(module, offset);
    frame->Establisher = context.Gpr[Rsp];
    if (frame->Function && !StepFunction(module, context, offset, frame)) return false;
    context.Rip = Load(context.Gpr[Rsp]);
    context.Gpr[Rsp] += 8;
    return true;
}

} // namespace nthost::image
