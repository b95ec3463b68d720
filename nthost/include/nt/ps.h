// Processes and threads as drivers see them.
#pragma once

#include "base.h"
#include "ke.h"

NT_EXTERN_C_BEGIN

typedef VOID(NTAPI* PKSTART_ROUTINE)(PVOID StartContext);

// A null process handle means the system process. The thread runs StartRoutine at PASSIVE_LEVEL and ends when it
// returns or calls PsTerminateSystemThread. The handle is the caller's to close.
NTKERNELAPI NTSTATUS NTAPI PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess,
                                                POBJECT_ATTRIBUTES ObjectAttributes, HANDLE ProcessHandle,
                                                PCLIENT_ID ClientId, PKSTART_ROUTINE StartRoutine, PVOID StartContext);
// Ends the calling system thread and does not return; STATUS_INVALID_PARAMETER for a thread that is not one.
NTKERNELAPI NTSTATUS NTAPI PsTerminateSystemThread(NTSTATUS ExitStatus);

NTKERNELAPI HANDLE NTAPI PsGetCurrentProcessId(VOID);
NTKERNELAPI HANDLE NTAPI PsGetCurrentThreadId(VOID);
NTKERNELAPI PEPROCESS NTAPI IoGetCurrentProcess(VOID);
#define PsGetCurrentProcess IoGetCurrentProcess
NTKERNELAPI PETHREAD NTAPI PsGetCurrentThread(VOID);
NTKERNELAPI BOOLEAN NTAPI PsIsSystemThread(PETHREAD Thread);
NTKERNELAPI KPROCESSOR_MODE NTAPI ExGetPreviousMode(VOID);

extern PEPROCESS PsInitialSystemProcess;

NT_EXTERN_C_END
