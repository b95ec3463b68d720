// The requests that a volume serves: one row each, with its dispatch routine and its inner routine. An inner routine
// works on the context's request; docs/architecture.md follows some of them.
#pragma once

#include "frame/dispatch.h"

// Fills the major functions that are served.
void GvFillDispatchRows(PDRIVER_OBJECT driver);
// Null for a major function that no row serves.
const GvDispatchRow* GvRowOf(UCHAR major);

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

NTSTATUS GvDoCreate(IrpContext* context, GvOutcome* outcome);
NTSTATUS GvDoClose(IrpContext* context, GvOutcome* outcome);
NTSTATUS GvDoRead(IrpContext* context, GvOutcome* outcome);
NTSTATUS GvDoWrite(IrpContext* context, GvOutcome* outcome);
NTSTATUS GvDoQueryInfo(IrpContext* context, GvOutcome* outcome);
NTSTATUS GvDoSetInfo(IrpContext* context, GvOutcome* outcome);
NTSTATUS GvDoQueryEa(IrpContext* context, GvOutcome* outcome);
NTSTATUS GvDoSetEa(IrpContext* context, GvOutcome* outcome);
NTSTATUS GvDoFlushBuffers(IrpContext* context, GvOutcome* outcome);
NTSTATUS GvDoQueryVolInfo(IrpContext* context, GvOutcome* outcome);
NTSTATUS GvDoSetVolInfo(IrpContext* context, GvOutcome* outcome);
NTSTATUS GvDoDirControl(IrpContext* context, GvOutcome* outcome);
NTSTATUS GvDoLockControl(IrpContext* context, GvOutcome* outcome);
NTSTATUS GvDoCleanup(IrpContext* context, GvOutcome* outcome);
