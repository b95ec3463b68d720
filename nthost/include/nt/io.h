// The I/O manager's objects: drivers, devices, files, requests. All have the public x64 layout (tests/layout proves
// it). Routines: nt/ioapi.h.
#pragma once

#include "base.h"
#include "ex.h"
#include "file.h"
#include "ke.h"
#include "mm.h"
#include "ob.h"
#include "ps.h"
#include "status.h"

NT_EXTERN_C_BEGIN

#define IO_TYPE_DEVICE 3
#define IO_TYPE_DRIVER 4
#define IO_TYPE_FILE   5
#define IO_TYPE_IRP    6

#define IRP_MJ_CREATE                   0x00
#define IRP_MJ_CREATE_NAMED_PIPE        0x01
#define IRP_MJ_CLOSE                    0x02
#define IRP_MJ_READ                     0x03
#define IRP_MJ_WRITE                    0x04
#define IRP_MJ_QUERY_INFORMATION        0x05
#define IRP_MJ_SET_INFORMATION          0x06
#define IRP_MJ_QUERY_EA                 0x07
#define IRP_MJ_SET_EA                   0x08
#define IRP_MJ_FLUSH_BUFFERS            0x09
#define IRP_MJ_QUERY_VOLUME_INFORMATION 0x0a
#define IRP_MJ_SET_VOLUME_INFORMATION   0x0b
#define IRP_MJ_DIRECTORY_CONTROL        0x0c
#define IRP_MJ_FILE_SYSTEM_CONTROL      0x0d
#define IRP_MJ_DEVICE_CONTROL           0x0e
#define IRP_MJ_INTERNAL_DEVICE_CONTROL  0x0f
#define IRP_MJ_SHUTDOWN                 0x10
#define IRP_MJ_LOCK_CONTROL             0x11
#define IRP_MJ_CLEANUP                  0x12
#define IRP_MJ_CREATE_MAILSLOT          0x13
#define IRP_MJ_QUERY_SECURITY           0x14
#define IRP_MJ_SET_SECURITY             0x15
#define IRP_MJ_POWER                    0x16
#define IRP_MJ_SYSTEM_CONTROL           0x17
#define IRP_MJ_DEVICE_CHANGE            0x18
#define IRP_MJ_QUERY_QUOTA              0x19
#define IRP_MJ_SET_QUOTA                0x1a
#define IRP_MJ_PNP                      0x1b
#define IRP_MJ_MAXIMUM_FUNCTION         0x1b

#define IRP_MN_NORMAL                  0x00
#define IRP_MN_MDL                     0x02
#define IRP_MN_COMPLETE                0x04
#define IRP_MN_QUERY_DIRECTORY         0x01
#define IRP_MN_NOTIFY_CHANGE_DIRECTORY 0x02
#define IRP_MN_USER_FS_REQUEST         0x00
#define IRP_MN_MOUNT_VOLUME            0x01
#define IRP_MN_VERIFY_VOLUME           0x02
#define IRP_MN_LOAD_FILE_SYSTEM        0x03
#define IRP_MN_KERNEL_CALL             0x04
#define IRP_MN_LOCK                    0x01
#define IRP_MN_UNLOCK_SINGLE           0x02
#define IRP_MN_UNLOCK_ALL              0x03
#define IRP_MN_UNLOCK_ALL_BY_KEY       0x04

// IO_STACK_LOCATION.Flags
#define SL_FORCE_ACCESS_CHECK     0x01
#define SL_OPEN_PAGING_FILE       0x02
#define SL_OPEN_TARGET_DIRECTORY  0x04
#define SL_CASE_SENSITIVE         0x80
#define SL_KEY_SPECIFIED          0x01
#define SL_OVERRIDE_VERIFY_VOLUME 0x02
#define SL_WRITE_THROUGH          0x04
#define SL_FAIL_IMMEDIATELY       0x01
#define SL_EXCLUSIVE_LOCK         0x02
#define SL_RESTART_SCAN           0x01
#define SL_RETURN_SINGLE_ENTRY    0x02
#define SL_INDEX_SPECIFIED        0x04
#define SL_WATCH_TREE             0x01
// IO_STACK_LOCATION.Control
#define SL_PENDING_RETURNED  0x01
#define SL_INVOKE_ON_CANCEL  0x20
#define SL_INVOKE_ON_SUCCESS 0x40
#define SL_INVOKE_ON_ERROR   0x80

// IRP.Flags
#define IRP_NOCACHE               0x00000001
#define IRP_PAGING_IO             0x00000002
#define IRP_SYNCHRONOUS_API       0x00000004
#define IRP_ASSOCIATED_IRP        0x00000008
#define IRP_BUFFERED_IO           0x00000010
#define IRP_DEALLOCATE_BUFFER     0x00000020
#define IRP_INPUT_OPERATION       0x00000040
#define IRP_SYNCHRONOUS_PAGING_IO 0x00000040
#define IRP_CREATE_OPERATION      0x00000080
#define IRP_READ_OPERATION        0x00000100
#define IRP_WRITE_OPERATION       0x00000200
#define IRP_CLOSE_OPERATION       0x00000400
#define IRP_DEFER_IO_COMPLETION   0x00000800

// DEVICE_OBJECT.Flags and Characteristics
#define DO_BUFFERED_IO                  0x00000004
#define DO_EXCLUSIVE                    0x00000008
#define DO_DIRECT_IO                    0x00000010
#define DO_DEVICE_HAS_NAME              0x00000040
#define DO_DEVICE_INITIALIZING          0x00000080
#define FILE_REMOVABLE_MEDIA            0x00000001
#define FILE_READ_ONLY_DEVICE           0x00000002
#define FILE_DEVICE_IS_MOUNTED          0x00000020
#define FILE_DEVICE_SECURE_OPEN         0x00000100
#define FILE_DEVICE_DISK                0x00000007
#define FILE_DEVICE_DISK_FILE_SYSTEM    0x00000008
#define FILE_DEVICE_FILE_SYSTEM         0x00000009
#define FILE_DEVICE_NETWORK_FILE_SYSTEM 0x00000014
#define FILE_DEVICE_NULL                0x00000015
#define FILE_DEVICE_UNKNOWN             0x00000022

// FILE_OBJECT.Flags
#define FO_FILE_OPEN                 0x00000001
#define FO_SYNCHRONOUS_IO            0x00000002
#define FO_ALERTABLE_IO              0x00000004
#define FO_NO_INTERMEDIATE_BUFFERING 0x00000008
#define FO_WRITE_THROUGH             0x00000010
#define FO_SEQUENTIAL_ONLY           0x00000020
#define FO_CACHE_SUPPORTED           0x00000040
#define FO_FILE_MODIFIED             0x00001000
#define FO_FILE_SIZE_CHANGED         0x00002000
#define FO_CLEANUP_COMPLETE          0x00004000
#define FO_TEMPORARY_FILE            0x00008000
#define FO_DELETE_ON_CLOSE           0x00010000
#define FO_OPENED_CASE_SENSITIVE     0x00020000
#define FO_HANDLE_CREATED            0x00040000
#define FO_VOLUME_OPEN               0x00400000

#define CTL_CODE(DeviceType, Function, Method, Access) \
    (((ULONG)(DeviceType) << 16) | ((Access) << 14) | ((Function) << 2) | (Method))
#define METHOD_BUFFERED   0
#define METHOD_IN_DIRECT  1
#define METHOD_OUT_DIRECT 2
#define METHOD_NEITHER    3
#define FILE_ANY_ACCESS   0

typedef struct _DEVICE_OBJECT* PDEVICE_OBJECT;
typedef struct _DRIVER_OBJECT* PDRIVER_OBJECT;
typedef struct _FILE_OBJECT* PFILE_OBJECT;
typedef struct _IRP* PIRP;
typedef struct _IO_STACK_LOCATION* PIO_STACK_LOCATION;
typedef struct _IO_WORKITEM* PIO_WORKITEM;
typedef struct _VPB* PVPB;

typedef struct _IO_STATUS_BLOCK {
    union {
        NTSTATUS Status;
        PVOID Pointer;
    };
    ULONG_PTR Information;
} IO_STATUS_BLOCK, *PIO_STATUS_BLOCK;

typedef struct _SECTION_OBJECT_POINTERS {
    PVOID DataSectionObject;
    PVOID SharedCacheMap;
    PVOID ImageSectionObject;
} SECTION_OBJECT_POINTERS, *PSECTION_OBJECT_POINTERS;

typedef struct _IO_COMPLETION_CONTEXT {
    PVOID Port;
    PVOID Key;
} IO_COMPLETION_CONTEXT, *PIO_COMPLETION_CONTEXT;

typedef struct _FILE_OBJECT {
    CSHORT Type;
    CSHORT Size;
    PDEVICE_OBJECT DeviceObject;
    PVPB Vpb;
    PVOID FsContext;
    PVOID FsContext2;
    PSECTION_OBJECT_POINTERS SectionObjectPointer;
    PVOID PrivateCacheMap;
    NTSTATUS FinalStatus;
    struct _FILE_OBJECT* RelatedFileObject;
    BOOLEAN LockOperation;
    BOOLEAN DeletePending;
    BOOLEAN ReadAccess;
    BOOLEAN WriteAccess;
    BOOLEAN DeleteAccess;
    BOOLEAN SharedRead;
    BOOLEAN SharedWrite;
    BOOLEAN SharedDelete;
    ULONG Flags;
    UNICODE_STRING FileName;
    LARGE_INTEGER CurrentByteOffset;
    volatile ULONG Waiters;
    volatile ULONG Busy;
    PVOID LastLock;
    KEVENT Lock;
    KEVENT Event;
    volatile PIO_COMPLETION_CONTEXT CompletionContext;
    KSPIN_LOCK IrpListLock;
    LIST_ENTRY IrpList;
    volatile PVOID FileObjectExtension;
} FILE_OBJECT;

typedef NTSTATUS(NTAPI* PDRIVER_INITIALIZE)(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);
typedef VOID(NTAPI* PDRIVER_UNLOAD)(PDRIVER_OBJECT DriverObject);
typedef NTSTATUS(NTAPI* PDRIVER_DISPATCH)(PDEVICE_OBJECT DeviceObject, PIRP Irp);
typedef VOID(NTAPI* PDRIVER_STARTIO)(PDEVICE_OBJECT DeviceObject, PIRP Irp);
typedef VOID(NTAPI* PDRIVER_CANCEL)(PDEVICE_OBJECT DeviceObject, PIRP Irp);
typedef NTSTATUS(NTAPI* PIO_COMPLETION_ROUTINE)(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context);
typedef VOID(NTAPI* PIO_APC_ROUTINE)(PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, ULONG Reserved);
typedef VOID(NTAPI* PIO_WORKITEM_ROUTINE)(PDEVICE_OBJECT DeviceObject, PVOID Context);

typedef BOOLEAN(NTAPI* PFAST_IO_CHECK_IF_POSSIBLE)(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length,
                                                   BOOLEAN Wait, ULONG LockKey, BOOLEAN CheckForReadOperation,
                                                   PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject);
typedef VOID(NTAPI* PFAST_IO_ACQUIRE_FILE)(PFILE_OBJECT FileObject);
typedef VOID(NTAPI* PFAST_IO_RELEASE_FILE)(PFILE_OBJECT FileObject);
typedef NTSTATUS(NTAPI* PFAST_IO_ACQUIRE_FOR_MOD_WRITE)(PFILE_OBJECT FileObject, PLARGE_INTEGER EndingOffset,
                                                        PERESOURCE* ResourceToRelease, PDEVICE_OBJECT DeviceObject);
typedef NTSTATUS(NTAPI* PFAST_IO_RELEASE_FOR_MOD_WRITE)(PFILE_OBJECT FileObject, PERESOURCE ResourceToRelease,
                                                        PDEVICE_OBJECT DeviceObject);
typedef NTSTATUS(NTAPI* PFAST_IO_ACQUIRE_FOR_CCFLUSH)(PFILE_OBJECT FileObject, PDEVICE_OBJECT DeviceObject);
typedef NTSTATUS(NTAPI* PFAST_IO_RELEASE_FOR_CCFLUSH)(PFILE_OBJECT FileObject, PDEVICE_OBJECT DeviceObject);

// The slots that nothing here calls are typed as plain pointers.
typedef struct _FAST_IO_DISPATCH {
    ULONG SizeOfFastIoDispatch;
    PFAST_IO_CHECK_IF_POSSIBLE FastIoCheckIfPossible;
    PVOID FastIoRead;
    PVOID FastIoWrite;
    PVOID FastIoQueryBasicInfo;
    PVOID FastIoQueryStandardInfo;
    PVOID FastIoLock;
    PVOID FastIoUnlockSingle;
    PVOID FastIoUnlockAll;
    PVOID FastIoUnlockAllByKey;
    PVOID FastIoDeviceControl;
    PFAST_IO_ACQUIRE_FILE AcquireFileForNtCreateSection;
    PFAST_IO_RELEASE_FILE ReleaseFileForNtCreateSection;
    PVOID FastIoDetachDevice;
    PVOID FastIoQueryNetworkOpenInfo;
    PFAST_IO_ACQUIRE_FOR_MOD_WRITE AcquireForModWrite;
    PVOID MdlRead;
    PVOID MdlReadComplete;
    PVOID PrepareMdlWrite;
    PVOID MdlWriteComplete;
    PVOID FastIoReadCompressed;
    PVOID FastIoWriteCompressed;
    PVOID MdlReadCompleteCompressed;
    PVOID MdlWriteCompleteCompressed;
    PVOID FastIoQueryOpen;
    PFAST_IO_RELEASE_FOR_MOD_WRITE ReleaseForModWrite;
    PFAST_IO_ACQUIRE_FOR_CCFLUSH AcquireForCcFlush;
    PFAST_IO_RELEASE_FOR_CCFLUSH ReleaseForCcFlush;
} FAST_IO_DISPATCH, *PFAST_IO_DISPATCH;

typedef struct _DRIVER_EXTENSION {
    PDRIVER_OBJECT DriverObject;
    PVOID AddDevice;
    ULONG Count;
    UNICODE_STRING ServiceKeyName;
} DRIVER_EXTENSION, *PDRIVER_EXTENSION;

typedef struct _DRIVER_OBJECT {
    CSHORT Type;
    CSHORT Size;
    PDEVICE_OBJECT DeviceObject;
    ULONG Flags;
    PVOID DriverStart;
    ULONG DriverSize;
    PVOID DriverSection;
    PDRIVER_EXTENSION DriverExtension;
    UNICODE_STRING DriverName;
    PUNICODE_STRING HardwareDatabase;
    PFAST_IO_DISPATCH FastIoDispatch;
    PDRIVER_INITIALIZE DriverInit;
    PDRIVER_STARTIO DriverStartIo;
    PDRIVER_UNLOAD DriverUnload;
    PDRIVER_DISPATCH MajorFunction[IRP_MJ_MAXIMUM_FUNCTION + 1];
} DRIVER_OBJECT;

// Queueing of requests in a device and deferred procedure calls are not served; the space is kept.
typedef struct DECLSPEC_ALIGN(16) _DEVICE_OBJECT {
    CSHORT Type;
    USHORT Size;
    LONG ReferenceCount;
    PDRIVER_OBJECT DriverObject;
    struct _DEVICE_OBJECT* NextDevice;
    struct _DEVICE_OBJECT* AttachedDevice;
    PIRP CurrentIrp;
    PVOID Timer;
    ULONG Flags;
    ULONG Characteristics;
    PVPB Vpb;
    PVOID DeviceExtension;
    DEVICE_TYPE DeviceType;
    CCHAR StackSize;
    ULONG_PTR Queue[9];
    ULONG AlignmentRequirement;
    ULONG_PTR DeviceQueue[5];
    ULONG_PTR Dpc[8];
    ULONG ActiveThreadCount;
    PSECURITY_DESCRIPTOR SecurityDescriptor;
    KEVENT DeviceLock;
    USHORT SectorSize;
    USHORT Spare1;
    PVOID DeviceObjectExtension;
    PVOID Reserved;
} DEVICE_OBJECT;

typedef struct _IO_SECURITY_CONTEXT {
    PVOID SecurityQos;
    PACCESS_STATE AccessState;
    ACCESS_MASK DesiredAccess;
    ULONG FullCreateOptions;
} IO_SECURITY_CONTEXT, *PIO_SECURITY_CONTEXT;

// Within a stack location every ULONG of the parameters stands at a pointer-sized offset.
#define NT_POINTER_ALIGNED DECLSPEC_ALIGN(8)

typedef struct _IO_STACK_LOCATION {
    UCHAR MajorFunction;
    UCHAR MinorFunction;
    UCHAR Flags;
    UCHAR Control;
    union {
        struct {
            PIO_SECURITY_CONTEXT SecurityContext;
            ULONG Options; // disposition in the top 8 bits, create options below
            NT_POINTER_ALIGNED USHORT FileAttributes;
            USHORT ShareAccess;
            NT_POINTER_ALIGNED ULONG EaLength;
        } Create;
        struct {
            ULONG Length;
            NT_POINTER_ALIGNED ULONG Key;
            LARGE_INTEGER ByteOffset;
        } Read;
        struct {
            ULONG Length;
            NT_POINTER_ALIGNED ULONG Key;
            LARGE_INTEGER ByteOffset;
        } Write;
        struct {
            ULONG Length;
            PUNICODE_STRING FileName;
            FILE_INFORMATION_CLASS FileInformationClass;
            NT_POINTER_ALIGNED ULONG FileIndex;
        } QueryDirectory;
        struct {
            ULONG Length;
            NT_POINTER_ALIGNED ULONG CompletionFilter;
        } NotifyDirectory;
        struct {
            ULONG Length;
            NT_POINTER_ALIGNED FILE_INFORMATION_CLASS FileInformationClass;
        } QueryFile;
        struct {
            ULONG Length;
            NT_POINTER_ALIGNED FILE_INFORMATION_CLASS FileInformationClass;
            PFILE_OBJECT FileObject;
            union {
                struct {
                    BOOLEAN ReplaceIfExists;
                    BOOLEAN AdvanceOnly;
                };
                ULONG ClusterCount;
                HANDLE DeleteHandle;
            };
        } SetFile;
        struct {
            ULONG Length;
            PVOID EaList;
            ULONG EaListLength;
            NT_POINTER_ALIGNED ULONG EaIndex;
        } QueryEa;
        struct {
            ULONG Length;
        } SetEa;
        struct {
            ULONG Length;
            NT_POINTER_ALIGNED FS_INFORMATION_CLASS FsInformationClass;
        } QueryVolume;
        struct {
            ULONG Length;
            NT_POINTER_ALIGNED FS_INFORMATION_CLASS FsInformationClass;
        } SetVolume;
        struct {
            ULONG OutputBufferLength;
            NT_POINTER_ALIGNED ULONG InputBufferLength;
            NT_POINTER_ALIGNED ULONG FsControlCode;
            PVOID Type3InputBuffer;
        } FileSystemControl;
        struct {
            PLARGE_INTEGER Length;
            NT_POINTER_ALIGNED ULONG Key;
            LARGE_INTEGER ByteOffset;
        } LockControl;
        struct {
            ULONG OutputBufferLength;
            NT_POINTER_ALIGNED ULONG InputBufferLength;
            NT_POINTER_ALIGNED ULONG IoControlCode;
            PVOID Type3InputBuffer;
        } DeviceIoControl;
        struct {
            PVOID Argument1;
            PVOID Argument2;
            PVOID Argument3;
            PVOID Argument4;
        } Others;
    } Parameters;
    PDEVICE_OBJECT DeviceObject;
    PFILE_OBJECT FileObject;
    PIO_COMPLETION_ROUTINE CompletionRoutine;
    PVOID Context;
} IO_STACK_LOCATION;

typedef struct DECLSPEC_ALIGN(16) _IRP {
    CSHORT Type;
    USHORT Size;
    PMDL MdlAddress;
    ULONG Flags;
    union {
        struct _IRP* MasterIrp;
        volatile LONG IrpCount;
        PVOID SystemBuffer;
    } AssociatedIrp;
    LIST_ENTRY ThreadListEntry;
    IO_STATUS_BLOCK IoStatus;
    KPROCESSOR_MODE RequestorMode;
    BOOLEAN PendingReturned;
    CHAR StackCount;
    CHAR CurrentLocation;
    BOOLEAN Cancel;
    KIRQL CancelIrql;
    CCHAR ApcEnvironment;
    UCHAR AllocationFlags;
    PIO_STATUS_BLOCK UserIosb;
    PKEVENT UserEvent;
    union {
        struct {
            PIO_APC_ROUTINE UserApcRoutine;
            PVOID UserApcContext;
        } AsynchronousParameters;
        LARGE_INTEGER AllocationSize;
    } Overlay;
    PDRIVER_CANCEL volatile CancelRoutine;
    PVOID UserBuffer;
    union {
        struct {
            PVOID DriverContext[4];
            PETHREAD Thread;
            PCHAR AuxiliaryBuffer;
            LIST_ENTRY ListEntry;
            PIO_STACK_LOCATION CurrentStackLocation;
            PFILE_OBJECT OriginalFileObject;
        } Overlay;
        PVOID CompletionKey;
    } Tail;
} IRP;

typedef enum _SECURITY_IMPERSONATION_LEVEL {
    SecurityAnonymous,
    SecurityIdentification,
    SecurityImpersonation,
    SecurityDelegation
} SECURITY_IMPERSONATION_LEVEL;

// Who asks: the impersonated client if there is one, and the process.
typedef struct _SECURITY_SUBJECT_CONTEXT {
    PVOID ClientToken;
    SECURITY_IMPERSONATION_LEVEL ImpersonationLevel;
    PVOID PrimaryToken;
    PVOID ProcessAuditId;
} SECURITY_SUBJECT_CONTEXT, *PSECURITY_SUBJECT_CONTEXT;

// A create's access, and what of it was granted so far. Only the fields that a file system reads have names here.
typedef struct _ACCESS_STATE {
    ULONG_PTR OperationId;
    BOOLEAN SecurityEvaluated;
    BOOLEAN GenerateAudit;
    BOOLEAN GenerateOnClose;
    BOOLEAN PrivilegesAllocated;
    ULONG Flags;
    ACCESS_MASK RemainingDesiredAccess;
    ACCESS_MASK PreviouslyGrantedAccess;
    ACCESS_MASK OriginalDesiredAccess;
    SECURITY_SUBJECT_CONTEXT SubjectSecurityContext;
    PSECURITY_DESCRIPTOR SecurityDescriptor;
    PVOID AuxData;
    UCHAR Privileges[0x2c];
    BOOLEAN AuditPrivileges;
    UNICODE_STRING ObjectName;
    UNICODE_STRING ObjectTypeName;
} ACCESS_STATE;

#define ERROR_LOG_MAXIMUM_SIZE 0xf0

typedef struct _IO_ERROR_LOG_PACKET {
    UCHAR MajorFunctionCode;
    UCHAR RetryCount;
    USHORT DumpDataSize;
    USHORT NumberOfStrings;
    USHORT StringOffset;
    USHORT EventCategory;
    NTSTATUS ErrorCode;
    ULONG UniqueErrorValue;
    NTSTATUS FinalStatus;
    ULONG SequenceNumber;
    ULONG IoControlCode;
    LARGE_INTEGER DeviceOffset;
    ULONG DumpData[1];
} IO_ERROR_LOG_PACKET, *PIO_ERROR_LOG_PACKET;

NT_EXTERN_C_END

#include "ioapi.h"
