// The thread's top-level slot, which tells whether a request is the outermost file-system entry on this thread.
#pragma once

#include "frame/nt.h"

// True if the slot was free; the request then stands in it.
bool GvUtlIsTopLevelIrp(PIRP irp);
void GvUtlClearTopLevelIrp();
