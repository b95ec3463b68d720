// One request kind, as the dispatch table describes it and a worker carries it out.
#pragma once

#include "frame/records.h"

// What an inner routine yields beside its status.
struct GvOutcome {
    ULONG Information;
    bool IrpTakenOver; // somebody else completes the request: the context goes, the request is not touched again
};

// STATUS_PENDING means that the request has left this thread.
using GvInnerRoutine = NTSTATUS (*)(IrpContext* context, GvOutcome* outcome);
using GvOpeningTrace = void (*)(const char* function, PDEVICE_OBJECT device, PIRP irp);

struct GvDispatchRow {
    UCHAR Major;
    const char* Name;
    PDRIVER_DISPATCH Entry; // the dispatch routine of that name
    GvInnerRoutine Inner;
    GvOpeningTrace TraceOpening;
    bool MayPend;           // STATUS_PENDING from the inner routine: the worker pool has the request
    bool YieldsInformation; // else IoStatus.Information is 0
};
