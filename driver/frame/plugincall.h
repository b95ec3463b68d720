// The protocol of a plugin call: every call of every operation goes through GV_CALL_PLUGIN. The count ties a running
// call to the volume's life; the gate refuses an object whose handle is gone; the guard contains what the plugin
// raises; arming makes the request cancellable while the call runs.
#pragma once

#include "frame/context.h"
#include "frame/guard.h"
#include "frame/handleswitch.h"
#include "frame/trace.h"

// A plugin handle as an argument: an object's, which is looked at only behind the gate, since a rename can replace it
// until then; or one that no object owns yet.
struct GvHandle {
    const Fcb* Object;
    PluginFd Fd;
};
inline GvHandle GvHandleOf(const Fcb* fcb) { return {fcb, 0}; }
inline GvHandle GvBareHandle(PluginFd fd) { return {nullptr, fd}; }

inline PluginFd GvPluginArgument(GvHandle handle)
{
    return handle.Object ? GvLoad(handle.Object->PluginFd) : handle.Fd;
}
template <typename T>
T GvPluginArgument(T argument)
{
    return argument;
}

// What the plugin must not answer becomes STATUS_UNSUCCESSFUL, with a trace: nothing would ever complete a request
// whose operation has pended, and its caller may be holding the volume's lock.
[[nodiscard]] NTSTATUS GvCheckPluginStatus(const char* operation, NTSTATUS status);
// STATUS_UNSUCCESSFUL, with a trace, for a count that exceeds what was asked for.
[[nodiscard]] NTSTATUS GvCheckPluginCount(const char* operation, ULONG count, ULONG asked);
// STATUS_UNSUCCESSFUL, with a trace, for a name that is no counted string: an odd length, or one of more than 16 bits.
[[nodiscard]] NTSTATUS GvCheckPluginName(const char* operation, const WCHAR* name, ULONG length);

// STATUS_ACCESS_DENIED off a mounted volume, STATUS_INVALID_PARAMETER by the gate, STATUS_NOT_SUPPORTED for an empty
// slot, STATUS_ACCESS_VIOLATION for an exception, else the operation's own status. The gate is the object that the call
// acts for, or null: for operations on paths, and on a handle that no object owns yet. The caller traces a failure
// under the operation's name.
template <typename Slot, typename... Arguments>
[[nodiscard]] NTSTATUS GvCallPlugin(IrpContext* context, const char* name, const Fcb* gate, Slot PluginOps::*slot,
                                    Arguments... arguments)
{
    Vcb* const vcb = context->Vcb;
    NTSTATUS status = GvAddrefThreadForPluginCall(vcb);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvAddrefThreadForPluginCall", status);
        return status;
    }
    const Slot operation = vcb->PluginOps->*slot; // read anew: the plugin owns its table
    {
        const GvGatePass pass(context, gate);
        if (!pass.IsOpen()) {
            status = STATUS_INVALID_PARAMETER;
        } else if (!operation) {
            status = STATUS_NOT_SUPPORTED;
        } else {
            // A pended context is armed for as long as its worker has it.
            if (!context->IsPended) GvArmCancelForPluginCall(vcb, context);
            // Only the call itself runs under the guard: an exception runs no destructors.
            if (!GvGuarded([&] {
                    status = operation(vcb->PluginOps->PluginContext, &context->PluginCallContext,
                                       GvPluginArgument(arguments)...);
                })) {
                status = STATUS_ACCESS_VIOLATION;
                GV_TRACE(GvTraceError, "EXCEPTION!!! in plugin call\n");
            }
            if (!context->IsPended) GvDisarmCancelForPluginCall(vcb, context, CancelRoutine::Clear);
            status = GvCheckPluginStatus(name, status);
        }
    }
    GvDerefThreadForPluginCall(vcb);
    return status;
}

#define GV_CALL_PLUGIN(context, gate, operation, ...) \
    GvCallPlugin(context, #operation, gate, &PluginOps::operation __VA_OPT__(, ) __VA_ARGS__)

// STATUS_INVALID_PARAMETER unless the table has the version that this driver calls by.
[[nodiscard]] NTSTATUS GvCheckPluginOpsVersion(const PluginOps* operations);
