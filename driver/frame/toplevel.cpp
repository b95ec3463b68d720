// The thread's top-level slot.

#include "frame/toplevel.h"

bool GvUtlIsTopLevelIrp(PIRP irp)
{
    if (IoGetTopLevelIrp()) return false;
    IoSetTopLevelIrp(irp);
    return true;
}

void GvUtlClearTopLevelIrp() { IoSetTopLevelIrp(nullptr); }
