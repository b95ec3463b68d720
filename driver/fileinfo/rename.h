// What the steps of a rename share. All are under Vcb.Resource, exclusive: no control block can appear and the
// name tree changes from nowhere else. An object's own lock is taken step by step, never two at a time.
#pragma once

#include "objects/util.h"

struct GvRenameDestination {
    // The plugin is told the leaf as the caller spelled it; the name tree holds the normalised one.
    GvString Normalized;
    GvString CasePreserved;
    PFILE_OBJECT Target; // the destination directory, opened for this rename; null for the same directory
    bool CrossDirectory;
    bool TargetReplaced; // an existing file had to go, or goes
};

// May what stands at the destination be replaced? Sets TargetReplaced if something stands there and may. The collision,
// read-only and open-handle refusals.
[[nodiscard]] NTSTATUS GvCheckRenameDestination(IrpContext* context, bool replaceIfExists,
                                                GvRenameDestination* destination);
// Deletes what is replaced, on the plugin only, with the caller's right to do so.
[[nodiscard]] NTSTATUS GvDeleteRenameTarget(IrpContext* context, PCUNICODE_STRING destination);
