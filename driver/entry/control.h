// The control device: the one road from a plugin to the driver. It has no per-handle state; all it gives is the service
// table.
#pragma once

#include "frame/nt.h"

// Written in DriverEntry only; null until the device exists.
extern PDEVICE_OBJECT GvCtrlDevice;

// The first step of every dispatch routine but GvUnsupportedIrp. *handled says that the request was for the control
// device and is complete, with the status returned.
NTSTATUS GvCtrlHandleIrp(PDEVICE_OBJECT device, PIRP irp, bool* handled);
