// The dispatch skeleton: the one shape of routine that every request served on a volume runs through.
#pragma once

#include "frame/row.h"

// "dev: 0x%x, fo: 0x%x\n"
void GvTraceOpening(const char* function, PDEVICE_OBJECT device, PIRP irp);

NTSTATUS GvDispatch(const GvDispatchRow& row, PDEVICE_OBJECT device, PIRP irp);
