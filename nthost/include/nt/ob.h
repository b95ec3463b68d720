// The object manager: references and handles.
#pragma once

#include "base.h"
#include "status.h"

NT_EXTERN_C_BEGIN

typedef struct _OBJECT_HANDLE_INFORMATION {
    ULONG HandleAttributes;
    ACCESS_MASK GrantedAccess;
} OBJECT_HANDLE_INFORMATION, *POBJECT_HANDLE_INFORMATION;

// Types are exported as pointers to the type variable, so code writes IoFileObjectType.
extern POBJECT_TYPE ExEventObjectType;
extern POBJECT_TYPE IoDeviceObjectType;
extern POBJECT_TYPE IoDriverObjectType;
extern POBJECT_TYPE IoFileObjectType;
extern POBJECT_TYPE PsProcessType;
extern POBJECT_TYPE PsThreadType;

// A null type accepts any. KernelMode skips the access check. Statuses: STATUS_INVALID_HANDLE,
// STATUS_OBJECT_TYPE_MISMATCH, STATUS_ACCESS_DENIED. The object gets one reference for the caller.
NTKERNELAPI NTSTATUS NTAPI ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                                     KPROCESSOR_MODE AccessMode, PVOID* Object,
                                                     POBJECT_HANDLE_INFORMATION HandleInformation);
NTKERNELAPI NTSTATUS NTAPI ObReferenceObjectByPointer(PVOID Object, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                                      KPROCESSOR_MODE AccessMode);
NTKERNELAPI LONG_PTR FASTCALL ObfReferenceObject(PVOID Object);
NTKERNELAPI LONG_PTR FASTCALL ObfDereferenceObject(PVOID Object);
#define ObReferenceObject(Object)   ObfReferenceObject(Object)
#define ObDereferenceObject(Object) ObfDereferenceObject(Object)

NTKERNELAPI NTSTATUS NTAPI ObOpenObjectByPointer(PVOID Object, ULONG HandleAttributes, PACCESS_STATE PassedAccessState,
                                                 ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                                 KPROCESSOR_MODE AccessMode, PHANDLE Handle);

NT_EXTERN_C_END
