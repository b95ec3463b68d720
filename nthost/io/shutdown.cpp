// The request by which a device learns that the system goes down. Tests send it; the host itself ends with its drivers
// unloaded, and so has nobody to tell.
#include <nthost/requests.h>

#include "io/finish.h"
#include "io/request.h"

NTSTATUS nthost::SendShutdown(PDEVICE_OBJECT device)
{
    io::IrpRecord* const record = io::NewFileIrp(nullptr, device, IRP_MJ_SHUTDOWN, IRP_SYNCHRONOUS_API);
    return record ? io::SendRequest(device, record) : STATUS_INSUFFICIENT_RESOURCES;
}
