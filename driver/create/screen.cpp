// Screening: what is refused from the parameters alone, before the volume is pinned or the plugin asked.

#include "create/create.h"

#include "frame/trace.h"

namespace {

constexpr ULONG kUnsupportedFlags = SL_OPEN_PAGING_FILE | SL_CASE_SENSITIVE;
constexpr ULONG kUnsupportedOptions = FILE_RESERVE_OPFILTER | FILE_OPEN_BY_FILE_ID | FILE_CREATE_TREE_CONNECTION;
constexpr ACCESS_MASK kSupportedAccess = FILE_READ_DATA | FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_READ_EA |
                                         FILE_WRITE_EA | FILE_EXECUTE | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES |
                                         DELETE | READ_CONTROL | WRITE_DAC | SYNCHRONIZE;
static_assert(kSupportedAccess == 0x1701bf);
static_assert(kUnsupportedOptions == 0x102080);

} // namespace

NTSTATUS GvCheckUnsupportedParams(PIRP irp)
{
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(irp);
    if (stack->Flags & kUnsupportedFlags) {
        GV_TRACE(GvTraceUnsupported, "ERROR: sl-flags: 0x%x not supported\n", stack->Flags);
        return STATUS_NOT_SUPPORTED;
    }
    const ULONG options = stack->Parameters.Create.Options;
    if (options >> 24 == FILE_SUPERSEDE) {
        GV_TRACE(GvTraceUnsupported, "disposition == supersede not supported\n");
        return STATUS_NOT_SUPPORTED;
    }
    if (options & kUnsupportedOptions) {
        GV_TRACE(GvTraceUnsupported, "options: 0x%x, not supported\n", options & FILE_VALID_OPTION_FLAGS);
        return STATUS_NOT_SUPPORTED;
    }
    const ACCESS_MASK desired = stack->Parameters.Create.SecurityContext->DesiredAccess;
    if (desired & ~kSupportedAccess)
        return GV_REFUSE(STATUS_ACCESS_DENIED, "ERR desired-access supported: 0x%x, got: 0x%x\n", kSupportedAccess,
                         desired);
    return STATUS_SUCCESS;
}
