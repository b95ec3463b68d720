// Services around APCs and alerts: delays, the test of both, and what one thread sends to another.
#include <cstdlib>
#include <new>

#include "ob/handle.h"
#include "ob/service.h"
#include "ke/apc.h"
#include "ke/thread.h"
#include "ob/capture.h"

namespace nthost::zw {

namespace {

struct QueuedCall {
    ke::Apc Apc;
    PPS_APC_ROUTINE Routine;
    PVOID Arguments[3];
};

void Discard(ke::Apc* apc) { delete CONTAINING_RECORD(apc, QueuedCall, Apc); }

void Deliver(ke::Apc* apc)
{
    const QueuedCall call = *CONTAINING_RECORD(apc, QueuedCall, Apc);
    Discard(apc);
    call.Routine(call.Arguments[0], call.Arguments[1], call.Arguments[2]);
}

NTSTATUS ReferenceThread(HANDLE handle, ACCESS_MASK access, KPROCESSOR_MODE mode, PETHREAD* thread)
{
    void* body;
    const NTSTATUS status = ob::ReferenceObjectByHandle(handle, access, PsThreadType, mode, &body, nullptr);
    if (NT_SUCCESS(status)) *thread = static_cast<PETHREAD>(body);
    return status;
}

NTSTATUS Queue(PETHREAD thread, PPS_APC_ROUTINE routine, PVOID argument1, PVOID argument2, PVOID argument3)
{
    if (thread->IsSystemThread) return STATUS_INVALID_HANDLE; // it never comes to user mode
    auto* const call =
        new (std::nothrow) QueuedCall{{{}, Deliver, Discard}, routine, {argument1, argument2, argument3}};
    if (!call) return STATUS_NO_MEMORY;
    if (ke::QueueApc(thread, UserMode, &call->Apc)) return STATUS_SUCCESS;
    delete call;
    return STATUS_UNSUCCESSFUL;
}

NTSTATUS QueueApcThread(KPROCESSOR_MODE mode, HANDLE handle, PPS_APC_ROUTINE routine, PVOID argument1, PVOID argument2,
                        PVOID argument3)
{
    PETHREAD thread;
    NTSTATUS status = ReferenceThread(handle, THREAD_SET_CONTEXT, mode, &thread);
    if (!NT_SUCCESS(status)) return status;
    status = Queue(thread, routine, argument1, argument2, argument3);
    ObDereferenceObject(thread);
    return status;
}

NTSTATUS AlertThread(KPROCESSOR_MODE mode, HANDLE handle)
{
    PETHREAD thread;
    const NTSTATUS status = ReferenceThread(handle, THREAD_ALERT, mode, &thread);
    if (!NT_SUCCESS(status)) return status;
    ke::AlertThread(thread, mode);
    ObDereferenceObject(thread);
    return STATUS_SUCCESS;
}

NTSTATUS DelayExecution(KPROCESSOR_MODE mode, BOOLEAN alertable, PLARGE_INTEGER userInterval)
{
    LARGE_INTEGER interval;
    const NTSTATUS status = ob::ReadUser(userInterval, &interval, mode);
    return NT_SUCCESS(status) ? KeDelayExecutionThread(mode, alertable, &interval) : status;
}

NTSTATUS TestAlert(KPROCESSOR_MODE mode) { return ke::TestAlert(mode) ? STATUS_ALERTED : STATUS_SUCCESS; }

} // namespace

} // namespace nthost::zw

NTHOST_SERVICE_PAIR(QueueApcThread, nthost::zw::QueueApcThread,
                    (HANDLE ThreadHandle, PPS_APC_ROUTINE ApcRoutine, PVOID ApcArgument1, PVOID ApcArgument2,
                     PVOID ApcArgument3),
                    ThreadHandle, ApcRoutine, ApcArgument1, ApcArgument2, ApcArgument3)
NTHOST_SERVICE_PAIR(AlertThread, nthost::zw::AlertThread, (HANDLE ThreadHandle), ThreadHandle)
NTHOST_SERVICE_PAIR(DelayExecution, nthost::zw::DelayExecution, (BOOLEAN Alertable, PLARGE_INTEGER DelayInterval),
                    Alertable, DelayInterval)

NTSTATUS NTAPI NtTestAlert(VOID) { return nthost::ke::LeaveService(nthost::zw::TestAlert(ExGetPreviousMode())); }

NTSTATUS NTAPI ZwTestAlert(VOID) { return nthost::zw::TestAlert(KernelMode); }
