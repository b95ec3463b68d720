// Access: the limits that the plugin has told for an object, and the plugin's own decision about a caller.

#include "create/create.h"

#include "frame/plugincall.h"

namespace {

constexpr ACCESS_MASK kNeedsRead = DELETE | READ_CONTROL | WRITE_DAC | SYNCHRONIZE | FILE_READ_ATTRIBUTES |
                                   FILE_WRITE_EA | FILE_READ_EA | FILE_READ_DATA;
constexpr ACCESS_MASK kNeedsWrite = FILE_WRITE_DATA | FILE_APPEND_DATA;
static_assert(kNeedsRead == 0x170099);

PluginAccessMask MaskFor(ACCESS_MASK desired)
{
    PluginAccessMask mask = 0;
    if (desired & kNeedsRead) mask |= GVND_ACCESS_READ;
    if (desired & kNeedsWrite) mask |= GVND_ACCESS_WRITE;
    if (desired & FILE_WRITE_ATTRIBUTES) mask |= GVND_ACCESS_WRITE_ATTRIBUTES;
    if (desired & FILE_EXECUTE) mask |= GVND_ACCESS_EXECUTE;
    return mask;
}

} // namespace

NTSTATUS GvCheckDesiredAccessWithFcbMaxAccess(ULONG type, ACCESS_MASK desired, PluginAccessMask mask)
{
    PluginAccessMask needed = MaskFor(desired);
    if (type != GvFile) needed &= ~GVND_ACCESS_EXECUTE;
    return needed & ~mask ? STATUS_ACCESS_DENIED : STATUS_SUCCESS;
}

NTSTATUS GvAccessCheck(IrpContext* context, PCUNICODE_STRING path, ACCESS_MASK desired, void* token)
{
    if (!context->Vcb->PluginOps->AccessCheck) return STATUS_SUCCESS;
    constexpr ULONG kConstant = 2;
    const NTSTATUS status = GV_CALL_PLUGIN(context, nullptr, AccessCheck, path, kConstant, MaskFor(desired), &token);
    if (!NT_SUCCESS(status)) GV_TRACE(GvTraceNotable, "AccessCheck(): 0x%x\n", status);
    return status;
}
