// Whether a directory may go: nothing below it lives, and the plugin lists nothing but dots.

#include "frame/resource.h"
#include "objects/util.h"
#include "plugin/operations.h"

namespace {

bool IsDotName(const PluginDirEntry* entry)
{
    const auto length = static_cast<USHORT>(entry->FileNameLength);
    const UNICODE_STRING name = {length, length, const_cast<PWCH>(entry->FileName)};
    const UNICODE_STRING dot = GvLiteral(L".");
    const UNICODE_STRING dotDot = GvLiteral(L"..");
    return RtlCompareUnicodeString(&name, &dot, TRUE) == 0 || RtlCompareUnicodeString(&name, &dotDot, TRUE) == 0;
}

} // namespace

NTSTATUS GvUtlIsPluginDirEmpty(IrpContext* context, Fcb* fcb)
{
    GV_ASSERT_HELD_OR_NESTED(context, fcb->Header.Resource);
    if (GvLoad(fcb->OpenCount) < GvLoad(fcb->RefCount))
        return GV_REFUSE(STATUS_UNSUCCESSFUL, "FCB has child entries, dir is not empty\n");
    ULONG found = 0;
    for (ULONG index = 0;; ++index) {
        GvBlock<PluginDirEntry> entry;
        const NTSTATUS status = GvReadDirEntryFromPlugin(context, fcb, index, &entry);
        if (status == STATUS_NO_MORE_FILES) return found ? STATUS_DIRECTORY_NOT_EMPTY : STATUS_SUCCESS;
        if (!NT_SUCCESS(status)) {
            GV_TRACE_FAILED("ReadDirEntry", status);
            return status;
        }
        if (!IsDotName(entry.Get())) ++found;
    }
}
