// In which context a request is served: what it and its thread say when a driver asks.
#include "io/file.h"
#include "io/irp.h"
#include "ke/thread.h"

using namespace nthost;
using namespace nthost::io;

BOOLEAN NTAPI IoIsOperationSynchronous(PIRP Irp)
{
    PFILE_OBJECT const file = Irp->Tail.Overlay.OriginalFileObject;
    constexpr ULONG SynchronousPaging = IRP_PAGING_IO | IRP_SYNCHRONOUS_PAGING_IO;
    if (file && HasFlag(file, FO_SYNCHRONOUS_IO)) return TRUE;
    // The paging bit alone says nothing: its companion has another meaning on other requests.
    return (Irp->Flags & IRP_SYNCHRONOUS_API) || (Irp->Flags & SynchronousPaging) == SynchronousPaging;
}

PEPROCESS NTAPI IoGetRequestorProcess(PIRP Irp)
{
    PETHREAD const thread = Irp->Tail.Overlay.Thread;
    if (!thread) return nullptr;
    if (!Irp->ApcEnvironment) return thread->Process;
    // The thread was acting for another process, which it may have stopped doing.
    PEPROCESS const requestor = RecordOf(Irp)->Requestor;
    return requestor ? requestor : thread->ActsFor;
}

VOID NTAPI IoSetTopLevelIrp(PIRP Irp) { ke::CurrentThread()->TopLevelIrp = Irp; }

PIRP NTAPI IoGetTopLevelIrp(VOID) { return ke::CurrentThread()->TopLevelIrp; }
