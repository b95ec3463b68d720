// Deletion at the last cleanup.
#pragma once

#include "frame/records.h"

// Deletes the object on the plugin and moves its control block to the deletion tree. STATUS_DIRECTORY_NOT_EMPTY,
// STATUS_UNSUCCESSFUL for a directory with live children, or a plugin's failure: the object then stays. Under
// Vcb.Resource and the object's lock, both exclusive.
[[nodiscard]] NTSTATUS GvPerformDeletion(IrpContext* context, Fcb* fcb);
