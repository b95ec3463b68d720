// What IRP_MJ_SET_INFORMATION hands to the routine of a class. The buffer is the request's system buffer, whose least
// length per class the I/O manager has checked.
#pragma once

#include "frame/records.h"

struct GvSetRequest {
    IrpContext* Context;
    PFILE_OBJECT FileObject;
    Fcb* Object;
    const PluginFileInfo* Record; // the plugin's, from just before
    void* Buffer;
};

// Under the object's lock, exclusive, unless the request is nested; the disposition under Vcb.Resource too.
[[nodiscard]] NTSTATUS GvSetBasicInfo(const GvSetRequest& set);
[[nodiscard]] NTSTATUS GvSetDispositionInfo(const GvSetRequest& set);
[[nodiscard]] NTSTATUS GvSetPositionInfo(const GvSetRequest& set);
[[nodiscard]] NTSTATUS GvSetAllocationInfo(const GvSetRequest& set);
[[nodiscard]] NTSTATUS GvSetEndOfFileInfo(const GvSetRequest& set);

// Under Vcb.Resource, exclusive, and no other lock: the routine takes those of the objects it meets, one at a time.
[[nodiscard]] NTSTATUS GvSetRenameInfo(IrpContext* context, Fcb* fcb);
