// The requests that a volume serves: a row and a dispatch routine for each.
#pragma once

#include "frame/nt.h"

// Fills the major functions that are served.
void GvFillDispatchRows(PDRIVER_OBJECT driver);

NTSTATUS NTAPI GvCreate(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS NTAPI GvClose(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS NTAPI GvRead(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS NTAPI GvWrite(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS NTAPI GvQueryInfo(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS NTAPI GvSetInfo(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS NTAPI GvQueryEa(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS NTAPI GvSetEa(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS NTAPI GvFlushBuffers(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS NTAPI GvQueryVolInfo(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS NTAPI GvSetVolInfo(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS NTAPI GvDirControl(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS NTAPI GvLockControl(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS NTAPI GvCleanup(PDEVICE_OBJECT device, PIRP irp);
// Without a context, and so without a row.
NTSTATUS NTAPI GvFsControl(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS NTAPI GvDevControl(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS NTAPI GvShutdown(PDEVICE_OBJECT device, PIRP irp);
