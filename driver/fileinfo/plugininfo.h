// The plugin's record of an open object. Queries and settings begin with it: nothing of it is kept.
#pragma once

#include "frame/plugincall.h"
#include "frame/pool.h"

// A success without a record counts as a failure. The caller traces, in its own words.
[[nodiscard]] inline NTSTATUS GvGetInfoFromPlugin(IrpContext* context, GvHandle handle, GvBlock<PluginFileInfo>* record)
{
    const NTSTATUS status = GV_CALL_PLUGIN(context, handle.Object, GetInfo, handle, record->Out());
    return NT_SUCCESS(status) && !*record ? STATUS_UNSUCCESSFUL : status;
}
