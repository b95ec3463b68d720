// Two passes over the stack, as the platform makes them. The first asks each frame's filter, innermost frame first,
// with everything still in place; the second runs the termination handlers up to the frame that said yes, and goes on
// there.
#include "image/seh.h"

#include <cstring>

#include "ke/callout.h"
#include "check/fatal.h"
#include <nthost/debug.h>

extern "C" __attribute__((weak)) void __asan_handle_no_return();

namespace nthost::image {

struct Dispatch {
    ExceptionRecord Record;
    Context Start; // registers at the instruction, or of the caller of the raise
    bool Exact;    // Start.Rip is the instruction itself
    Dispatch* Outer;
    uint64_t FilterFrame; // the frame that is being asked
};

namespace {

enum RecordFlag : uint32_t { NonContinuable = 1, Unwinding = 2, TargetUnwind = 0x20 };
constexpr int ContinueExecution = 0, ContinueSearch = 1;

struct ScopeEntry {
    uint32_t Begin, End, Handler, Target;
};
struct ScopeTable {
    uint32_t Count;
    ScopeEntry Entries[1];
};

thread_local Dispatch* g_innermost;

uint64_t AddressOf(const void* pointer) { return reinterpret_cast<uint64_t>(pointer); }

// Walks outwards from where an exception was raised.
class Walk {
public:
    enum Stop { AtFrame, AtGuard, AtEnd };

    explicit Walk(Dispatch* dispatch)
        : caller_(dispatch->Start), exact_(dispatch->Exact), active_(dispatch->Outer),
          guard_(ke::CurrentThread()->Guard), owner_(dispatch)
    {}

    Stop Next()
    {
        for (;;) {
            module_ = FindModule(caller_.Rip);
            if (module_ && !module_->Unloaded) return NextImageFrame();
            HostFrame frame;
            if (!StepHost(caller_, &exact_, &frame) && !StepOverNowhere(&frame)) return AtEnd;
            NoteActive(frame.Canonical);
            if (guard_ && AddressOf(guard_->Frame) < frame.Canonical) {
                PNT_GUARD const found = guard_;
                guard_ = guard_->Outer;
                stoppedAt_ = found;
                return AtGuard;
            }
        }
    }

    const ImageFrame& Frame() const { return frame_; }
    Context& Registers() { return at_; }
    PNT_GUARD Guard() const { return stoppedAt_; }
    // Its filter is at work further in: an exception in a filter does not ask the filter.
    bool IsSkipped() const { return frame_.Establisher <= skipUpTo_; }

    int CallHandler(uint64_t targetIp)
    {
        DispatcherContext dispatcher{at_.Rip,
                                     AddressOf(module_->Base),
                                     frame_.Function,
                                     frame_.Establisher,
                                     targetIp,
                                     &at_,
                                     frame_.Routine,
                                     frame_.HandlerData,
                                     nullptr,
                                     0,
                                     0,
                                     owner_};
        return frame_.Routine(&owner_->Record, frame_.Establisher, &owner_->Start, &dispatcher);
    }

private:
    Stop NextImageFrame()
    {
        at_ = caller_;
        exact_ = false;
        return StepImage(*module_, caller_, &frame_) ? AtFrame : AtEnd;
    }

    // A call to where no code is: the frame is nothing but the return address.
    bool StepOverNowhere(HostFrame* frame)
    {
        if (!exact_) return false;
        exact_ = false;
        caller_.Rip = *reinterpret_cast<const uint64_t*>(caller_.Gpr[Rsp]);
        caller_.Gpr[Rsp] += 8;
        frame->Canonical = caller_.Gpr[Rsp];
        return FindModule(caller_.Rip);
    }

    void NoteActive(uint64_t canonical)
    {
        while (active_ && AddressOf(active_) < canonical) {
            if (active_->FilterFrame > skipUpTo_) skipUpTo_ = active_->FilterFrame;
            active_ = active_->Outer;
        }
    }

    Context at_{}, caller_;
    bool exact_;
    Dispatch* active_;
    PNT_GUARD guard_, stoppedAt_ = nullptr;
    Dispatch* owner_;
    const Module* module_ = nullptr;
    ImageFrame frame_{};
    uint64_t skipUpTo_ = 0;
};

// The thread as it was when the frame at this address ran last.
void ForgetBelow(uint64_t address)
{
    _ETHREAD* const thread = ke::CurrentThread();
    while (thread->Guard && AddressOf(thread->Guard->Frame) < address) thread->Guard = thread->Guard->Outer;
    while (g_innermost && AddressOf(g_innermost) < address) g_innermost = g_innermost->Outer;
    ReturnToCall(thread, reinterpret_cast<void*>(address));
}

[[noreturn]] void GoOn(const Context& context)
{
    // What the abandoned frames had marked as not to be touched is ordinary stack again.
    if (__asan_handle_no_return) __asan_handle_no_return();
    NthostRestoreContext(&context);
}

// Termination handlers up to the target, and on.
[[noreturn]] void Unwind(Dispatch* dispatch, uint64_t targetFrame, uint64_t targetIp, PNT_GUARD guard)
{
    dispatch->Record.Flags |= Unwinding;
    Walk walk(dispatch);
    for (;;) {
        const Walk::Stop stop = walk.Next();
        if (stop == Walk::AtEnd) Fatal("the frame that handles an exception is gone");
        if (stop == Walk::AtGuard) {
            if (walk.Guard() != guard) continue;
            while (g_innermost && AddressOf(g_innermost) < AddressOf(guard->Frame)) g_innermost = g_innermost->Outer;
            ke::JumpToGuard(ke::CurrentThread(), guard, static_cast<NTSTATUS>(dispatch->Record.Code));
        }
        const bool isTarget = !guard && walk.Frame().Establisher == targetFrame;
        if (isTarget) dispatch->Record.Flags |= TargetUnwind;
        if (walk.Frame().Routine && walk.Frame().ForUnwinding) walk.CallHandler(targetIp);
        if (isTarget) break;
    }
    Context& landing = walk.Registers();
    landing.Rip = targetIp;
    landing.Gpr[Rax] = dispatch->Record.Code;
    landing.EFlags = 0x202;
    ForgetBelow(targetFrame);
    GoOn(landing);
}

void Search(Dispatch* dispatch)
{
    Walk walk(dispatch);
    for (;;) {
        switch (walk.Next()) {
        case Walk::AtEnd: return;
        case Walk::AtGuard: Unwind(dispatch, 0, 0, walk.Guard());
        case Walk::AtFrame:
            if (!walk.Frame().Routine || !walk.Frame().ForExceptions || walk.IsSkipped()) break;
            dispatch->FilterFrame = walk.Frame().Establisher;
            if (walk.CallHandler(0) != ContinueExecution) break;
            if (dispatch->Record.Flags & NonContinuable) Fatal("a filter would continue behind a raise");
            g_innermost = dispatch->Outer;
            GoOn(dispatch->Start);
        }
    }
}

} // namespace

void DispatchException(const ke::Exception& exception)
{
    Dispatch dispatch{};
    if (exception.Fault)
        FromSignal(*exception.Fault, dispatch.Start);
    else
        NthostCaptureContext(&dispatch.Start);
    dispatch.Exact = exception.Fault;
    dispatch.Record.Code = static_cast<uint32_t>(exception.Code);
    if (!exception.Fault) dispatch.Record.Flags = NonContinuable;
    dispatch.Record.Address = dispatch.Start.Rip;
    dispatch.Record.ParameterCount = exception.ParameterCount;
    memcpy(dispatch.Record.Parameters, exception.Parameters, sizeof(exception.Parameters));
    dispatch.Outer = g_innermost;
    g_innermost = &dispatch;
    Search(&dispatch);
    g_innermost = dispatch.Outer;
}

int NTAPI CSpecificHandler(ExceptionRecord* record, uint64_t frame, Context* context, DispatcherContext* dispatcher)
{
    using Filter = int(NTAPI*)(void* pointers, uint64_t frame);
    using Termination = void(NTAPI*)(BOOLEAN abnormal, uint64_t frame);

    const auto& table = *static_cast<const ScopeTable*>(dispatcher->HandlerData);
    const uint64_t base = dispatcher->ImageBase;
    const auto at = static_cast<uint32_t>(dispatcher->ControlPc - base),
               target = static_cast<uint32_t>(dispatcher->TargetIp - base);
    while (dispatcher->ScopeIndex < table.Count) {
        const ScopeEntry& scope = (&table.Entries[0])[dispatcher->ScopeIndex++];
        if (at < scope.Begin || at >= scope.End) continue;
        const bool isTermination = !scope.Target;
        if (!(record->Flags & Unwinding)) {
            if (isTermination) continue;
            constexpr uint32_t Always = 1; // EXCEPTION_EXECUTE_HANDLER instead of a filter
            int verdict = 1;
            if (scope.Handler != Always) {
                void* pointers[] = {record, context};
                verdict = reinterpret_cast<Filter>(base + scope.Handler)(pointers, frame);
            }
            if (verdict < 0) return ContinueExecution;
            if (verdict > 0) Unwind(dispatcher->Owner, frame, base + scope.Target, nullptr);
        } else if (record->Flags & TargetUnwind &&
                   (isTermination ? target >= scope.Begin && target < scope.End : scope.Target == target)) {
            return ContinueSearch; // what encloses the handler is not left
        } else if (isTermination) {
            reinterpret_cast<Termination>(base + scope.Handler)(TRUE, frame);
        }
    }
    return ContinueSearch;
}

} // namespace nthost::image
