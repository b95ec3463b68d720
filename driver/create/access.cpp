// Access: the limits that the plugin has told for an object, and the plugin's own decision about a caller.

#include "create/create.h"

#include "plugin/operations.h"

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
    const NTSTATUS status = GvAskAccess(context, path, MaskFor(desired), token);
    if (!NT_SUCCESS(status)) GV_TRACE(GvTraceNotable, "AccessCheck(): 0x%x\n", status);
    return status;
}
