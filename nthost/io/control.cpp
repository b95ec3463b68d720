// Device and file-system control: the code says how the buffers travel and which access the handle must have. A driver
// that offers fast device control is asked that way first.
#include <nthost/faults.h>

#include "io/fast_io.h"
#include "io/request.h"
#include "ob/service.h"
#include "ob/capture.h"

namespace nthost::io {

namespace {

struct ControlArguments {
    KPROCESSOR_MODE Mode;
    ULONG Code;
    void* Input;
    ULONG InputLength;
    void* Output;
    ULONG OutputLength;

    ULONG Method() const { return Code & 3; }
    // FILE_READ_ACCESS and FILE_WRITE_ACCESS have the same numbers as the data rights of a file.
    ACCESS_MASK Access() const { return Code >> 14 & (FILE_READ_ACCESS | FILE_WRITE_ACCESS); }
};

// A missing buffer has no length, except where the driver gets the caller's arguments as they are.
[[nodiscard]] NTSTATUS ProbeBuffers(ControlArguments* arguments)
{
    if (arguments->Method() == METHOD_NEITHER) return STATUS_SUCCESS;
    if (!arguments->Input) arguments->InputLength = 0;
    if (!arguments->Output) arguments->OutputLength = 0;
    const NTSTATUS status = ob::ProbeUserForRead(arguments->Input, arguments->InputLength, 1, arguments->Mode);
    if (!NT_SUCCESS(status) || arguments->Method() != METHOD_BUFFERED) return status;
    return ob::ProbeUserForWrite(arguments->Output, arguments->OutputLength, 1, arguments->Mode);
}

[[nodiscard]] NTSTATUS AttachBuffers(Request& request, const ControlArguments& arguments)
{
    switch (arguments.Method()) {
    case METHOD_BUFFERED:
        return request.Buffered(arguments.Input, arguments.InputLength, arguments.Output, arguments.OutputLength);
    case METHOD_NEITHER:
        request.Location()->Parameters.DeviceIoControl.Type3InputBuffer = arguments.Input;
        request.Neither(arguments.Output);
        return STATUS_SUCCESS;
    default:
        const NTSTATUS status = request.Buffered(arguments.Input, arguments.InputLength, nullptr, 0);
        if (!NT_SUCCESS(status)) return status;
        request.Neither(arguments.Output);
        return request.Direct(arguments.Output, arguments.OutputLength,
                              arguments.Method() == METHOD_IN_DIRECT ? IoReadAccess : IoWriteAccess);
    }
}

// The parameters of the two kinds have one layout.
void FillControl(PIO_STACK_LOCATION location, const ControlArguments& arguments)
{
    auto& parameters = location->Parameters.DeviceIoControl;
    parameters.IoControlCode = arguments.Code;
    parameters.InputBufferLength = arguments.InputLength;
    parameters.OutputBufferLength = arguments.OutputLength;
}

// The driver gets the caller's addresses. True if it has answered, with the service's status.
bool ControlFast(Request& request, const ControlArguments& arguments, NTSTATUS* status)
{
    PDEVICE_OBJECT const device = request.Device();
    if (!request.MayBeFast() || !FastIoRoutine(device, &_FAST_IO_DISPATCH::FastIoDeviceControl)) return false;
    // What a packet would have locked is to be good here too.
    if (arguments.Method() == METHOD_OUT_DIRECT) {
        *status = ob::ProbeUserForWrite(arguments.Output, arguments.OutputLength, 1, arguments.Mode);
        if (!NT_SUCCESS(*status)) return true;
    }
    request.LockFile();
    IO_STATUS_BLOCK result{};
    if (!DoneFast(device, "FastIoDeviceControl", &_FAST_IO_DISPATCH::FastIoDeviceControl, &result, request.File(),
                  BOOLEAN{TRUE}, arguments.Input, arguments.InputLength, arguments.Output, arguments.OutputLength,
                  arguments.Code))
        return false;
    *status = request.EndFast(result);
    return true;
}

NTSTATUS Control(UCHAR major, ControlArguments arguments, const ServiceCaller& caller, HANDLE file)
{
    NTSTATUS status = ProbeBuffers(&arguments);
    if (!NT_SUCCESS(status)) return status;
    Request request;
    status = request.Open(caller, file, arguments.Access(), Service::Asynchronous);
    if (!NT_SUCCESS(status)) return status;
    if (major == IRP_MJ_DEVICE_CONTROL && ControlFast(request, arguments, &status)) return status;
    status = request.Build(major);
    if (!NT_SUCCESS(status)) return status;
    FillControl(request.Location(), arguments);
    status = AttachBuffers(request, arguments);
    return NT_SUCCESS(status) ? request.Issue() : status;
}

NTSTATUS DeviceControl(KPROCESSOR_MODE mode, HANDLE file, HANDLE event, PIO_APC_ROUTINE apcRoutine, PVOID apcContext,
                       PIO_STATUS_BLOCK statusBlock, ULONG code, PVOID input, ULONG inputLength, PVOID output,
                       ULONG outputLength)
{
    if (mode == KernelMode && FaultInjected("ZwDeviceIoControlFile")) return STATUS_INSUFFICIENT_RESOURCES;
    return Control(IRP_MJ_DEVICE_CONTROL, {mode, code, input, inputLength, output, outputLength},
                   {mode, statusBlock, event, apcRoutine, apcContext}, file);
}

NTSTATUS FsControl(KPROCESSOR_MODE mode, HANDLE file, HANDLE event, PIO_APC_ROUTINE apcRoutine, PVOID apcContext,
                   PIO_STATUS_BLOCK statusBlock, ULONG code, PVOID input, ULONG inputLength, PVOID output,
                   ULONG outputLength)
{
    return Control(IRP_MJ_FILE_SYSTEM_CONTROL, {mode, code, input, inputLength, output, outputLength},
                   {mode, statusBlock, event, apcRoutine, apcContext}, file);
}

} // namespace

} // namespace nthost::io

NTHOST_SERVICE_PAIR(DeviceIoControlFile, nthost::io::DeviceControl,
                    (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                     PIO_STATUS_BLOCK IoStatusBlock, ULONG IoControlCode, PVOID InputBuffer, ULONG InputBufferLength,
                     PVOID OutputBuffer, ULONG OutputBufferLength),
                    FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, IoControlCode, InputBuffer,
                    InputBufferLength, OutputBuffer, OutputBufferLength)
NTHOST_SERVICE_PAIR(FsControlFile, nthost::io::FsControl,
                    (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                     PIO_STATUS_BLOCK IoStatusBlock, ULONG FsControlCode, PVOID InputBuffer, ULONG InputBufferLength,
                     PVOID OutputBuffer, ULONG OutputBufferLength),
                    FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, FsControlCode, InputBuffer,
                    InputBufferLength, OutputBuffer, OutputBufferLength)
