// The front door: native system services. Nt forms act for the mode the thread last came from (user mode unless it is a
// system thread or runs a driver's code); Zw forms act for kernel mode: no probing, kernel handles reachable. An
// ApcRoutine is called on the calling thread when the request has ended: for a user-mode caller in an alertable wait of
// the thread, for a kernel-mode one as soon as its APCs are not disabled.
#pragma once

#include "base.h"
#include "io.h"
#include "se.h"
#include "status.h"

NT_EXTERN_C_BEGIN

#define KEY_QUERY_VALUE 0x0001u
#define KEY_READ        0x20019u
#define KEY_WRITE       0x20006u
#define KEY_ALL_ACCESS  0xf003fu

#define REG_NONE      0
#define REG_SZ        1
#define REG_EXPAND_SZ 2
#define REG_BINARY    3
#define REG_DWORD     4
#define REG_MULTI_SZ  7
#define REG_QWORD     11

typedef enum _KEY_VALUE_INFORMATION_CLASS {
    KeyValueBasicInformation,
    KeyValueFullInformation,
    KeyValuePartialInformation
} KEY_VALUE_INFORMATION_CLASS;

typedef struct _KEY_VALUE_BASIC_INFORMATION {
    ULONG TitleIndex;
    ULONG Type;
    ULONG NameLength;
    WCHAR Name[1];
} KEY_VALUE_BASIC_INFORMATION, *PKEY_VALUE_BASIC_INFORMATION;

// The data stands at DataOffset, behind the name.
typedef struct _KEY_VALUE_FULL_INFORMATION {
    ULONG TitleIndex;
    ULONG Type;
    ULONG DataOffset;
    ULONG DataLength;
    ULONG NameLength;
    WCHAR Name[1];
} KEY_VALUE_FULL_INFORMATION, *PKEY_VALUE_FULL_INFORMATION;

typedef struct _KEY_VALUE_PARTIAL_INFORMATION {
    ULONG TitleIndex;
    ULONG Type;
    ULONG DataLength;
    UCHAR Data[1];
} KEY_VALUE_PARTIAL_INFORMATION, *PKEY_VALUE_PARTIAL_INFORMATION;

#define EVENT_QUERY_STATE  0x0001u
#define EVENT_MODIFY_STATE 0x0002u
#define EVENT_ALL_ACCESS   (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x3u)

#define IO_COMPLETION_QUERY_STATE  0x0001u
#define IO_COMPLETION_MODIFY_STATE 0x0002u
#define IO_COMPLETION_ALL_ACCESS   (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x3u)

typedef struct _FILE_IO_COMPLETION_INFORMATION {
    PVOID KeyContext;
    PVOID ApcContext;
    IO_STATUS_BLOCK IoStatusBlock;
} FILE_IO_COMPLETION_INFORMATION, *PFILE_IO_COMPLETION_INFORMATION;

#define PROCESS_DUP_HANDLE 0x0040u

#define THREAD_ALERT       0x0004u
#define THREAD_SET_CONTEXT 0x0010u

typedef VOID(NTAPI* PPS_APC_ROUTINE)(PVOID ApcArgument1, PVOID ApcArgument2, PVOID ApcArgument3);

#define NtCurrentProcess() ((HANDLE)(LONG_PTR)-1)
#define NtCurrentThread()  ((HANDLE)(LONG_PTR)-2)

#define NT_SERVICE(name, parameters)             \
    NTSYSAPI NTSTATUS NTAPI Nt##name parameters; \
    NTSYSAPI NTSTATUS NTAPI Zw##name parameters

NT_SERVICE(CreateFile,
           (PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
            PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes, ULONG ShareAccess,
            ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength));
NT_SERVICE(OpenFile, (PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                      PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess, ULONG OpenOptions));
// Opens with DELETE and FILE_DELETE_ON_CLOSE, and closes.
NT_SERVICE(DeleteFile, (POBJECT_ATTRIBUTES ObjectAttributes));
// Open, ask, close. A reparse point is the file that is asked about.
NT_SERVICE(QueryAttributesFile, (POBJECT_ATTRIBUTES ObjectAttributes, PFILE_BASIC_INFORMATION FileInformation));
NT_SERVICE(QueryFullAttributesFile,
           (POBJECT_ATTRIBUTES ObjectAttributes, PFILE_NETWORK_OPEN_INFORMATION FileInformation));
NT_SERVICE(Close, (HANDLE Handle));
NT_SERVICE(DeviceIoControlFile, (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                                 PIO_STATUS_BLOCK IoStatusBlock, ULONG IoControlCode, PVOID InputBuffer,
                                 ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength));
NT_SERVICE(FsControlFile, (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                           PIO_STATUS_BLOCK IoStatusBlock, ULONG FsControlCode, PVOID InputBuffer,
                           ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength));
// ByteOffset: on a file object for synchronous I/O null, or -2 (FILE_USE_FILE_POINTER_POSITION), means its current
// position; else an offset that is not negative must be given (STATUS_INVALID_PARAMETER).
NT_SERVICE(ReadFile,
           (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
            PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset, PULONG Key));
#define FILE_USE_FILE_POINTER_POSITION 0xfffffffe
// As ReadFile; an offset of -1 (FILE_WRITE_TO_END_OF_FILE) appends, and a handle without FILE_WRITE_DATA always does.
NT_SERVICE(WriteFile,
           (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
            PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset, PULONG Key));
#define FILE_WRITE_TO_END_OF_FILE 0xffffffff
// STATUS_INVALID_INFO_CLASS, STATUS_INFO_LENGTH_MISMATCH below the class's fixed size. FilePositionInformation of a
// file object for synchronous I/O, and FileModeInformation, do not reach the driver.
NT_SERVICE(QueryInformationFile, (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation,
                                  ULONG Length, FILE_INFORMATION_CLASS FileInformationClass));
// A rename or link to a path (a leading backslash, or a RootDirectory) opens the target's directory first:
// STATUS_NOT_SAME_DEVICE, for a link STATUS_OBJECT_NAME_COLLISION without ReplaceIfExists, or what that open gave.
NT_SERVICE(SetInformationFile, (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                                FILE_INFORMATION_CLASS FileInformationClass));
// STATUS_INVALID_INFO_CLASS for a class without records, STATUS_INFO_LENGTH_MISMATCH for a buffer without room for the
// fixed part of one.
NT_SERVICE(QueryDirectoryFile, (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                                PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                                FILE_INFORMATION_CLASS FileInformationClass, BOOLEAN ReturnSingleEntry,
                                PUNICODE_STRING FileName, BOOLEAN RestartScan));
NT_SERVICE(NotifyChangeDirectoryFile,
           (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
            PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, ULONG CompletionFilter, BOOLEAN WatchTree));
// The handle needs FILE_READ_DATA or FILE_WRITE_DATA.
NT_SERVICE(LockFile, (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                      PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER ByteOffset, PLARGE_INTEGER Length, ULONG Key,
                      BOOLEAN FailImmediately, BOOLEAN ExclusiveLock));
NT_SERVICE(UnlockFile, (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER ByteOffset,
                        PLARGE_INTEGER Length, ULONG Key));
// A list that is not well-formed gives STATUS_EA_LIST_INCONSISTENT with the offset of its first bad record in the
// status block. The EaList of a query has FILE_GET_EA_INFORMATION records; EaIndex counts from 1.
NT_SERVICE(QueryEaFile,
           (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, BOOLEAN ReturnSingleEntry,
            PVOID EaList, ULONG EaListLength, PULONG EaIndex, BOOLEAN RestartScan));
NT_SERVICE(SetEaFile, (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length));
// Classes and lengths as with file information; all classes are the driver's to answer.
NT_SERVICE(QueryVolumeInformationFile, (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FsInformation,
                                        ULONG Length, FS_INFORMATION_CLASS FsInformationClass));
NT_SERVICE(SetVolumeInformationFile, (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FsInformation,
                                      ULONG Length, FS_INFORMATION_CLASS FsInformationClass));
// The handle needs FILE_WRITE_DATA or FILE_APPEND_DATA.
NT_SERVICE(FlushBuffersFile, (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock));
// Cancels the current thread's requests on the file and waits for them to end.
NT_SERVICE(CancelIoFile, (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock));
// Cancels any thread's requests of this process on the file, or only the one with the given status block.
// STATUS_NOT_FOUND if there was none.
NT_SERVICE(CancelIoFileEx, (HANDLE FileHandle, PIO_STATUS_BLOCK IoRequestToCancel, PIO_STATUS_BLOCK IoStatusBlock));
// A completion port: packets in order of arrival, each for one of those that remove. Count is not looked at: as many
// threads run as there are packets.
NT_SERVICE(CreateIoCompletion,
           (PHANDLE IoCompletionHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes, ULONG Count));
NT_SERVICE(SetIoCompletion, (HANDLE IoCompletionHandle, PVOID KeyContext, PVOID ApcContext, NTSTATUS IoStatus,
                             ULONG_PTR IoStatusInformation));
// STATUS_TIMEOUT; STATUS_ABANDONED_WAIT_0 when the last handle on the port is closed meanwhile.
NT_SERVICE(RemoveIoCompletion, (HANDLE IoCompletionHandle, PVOID* KeyContext, PVOID* ApcContext,
                                PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER Timeout));
// Up to Count at once: waits for the first, and takes what else is there. Alertable, STATUS_USER_APC or STATUS_ALERTED.
NT_SERVICE(RemoveIoCompletionEx, (HANDLE IoCompletionHandle, PFILE_IO_COMPLETION_INFORMATION IoCompletionInformation,
                                  ULONG Count, PULONG NumEntriesRemoved, PLARGE_INTEGER Timeout, BOOLEAN Alertable));
NT_SERVICE(CreateEvent, (PHANDLE EventHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                         EVENT_TYPE EventType, BOOLEAN InitialState));
NT_SERVICE(SetEvent, (HANDLE EventHandle, PLONG PreviousState));
NT_SERVICE(ResetEvent, (HANDLE EventHandle, PLONG PreviousState));
NT_SERVICE(WaitForSingleObject, (HANDLE Handle, BOOLEAN Alertable, PLARGE_INTEGER Timeout));
NT_SERVICE(WaitForMultipleObjects,
           (ULONG Count, HANDLE Handles[], WAIT_TYPE WaitType, BOOLEAN Alertable, PLARGE_INTEGER Timeout));
// STATUS_SUCCESS when the time is over, STATUS_USER_APC, STATUS_ALERTED.
NT_SERVICE(DelayExecution, (BOOLEAN Alertable, PLARGE_INTEGER DelayInterval));
// STATUS_ALERTED if the thread was alerted. User APCs that are queued to it run before the service returns.
NT_SERVICE(TestAlert, (VOID));
// Ends the thread's alertable wait, or the next one at once.
NT_SERVICE(AlertThread, (HANDLE ThreadHandle));
// A user APC. STATUS_INVALID_HANDLE for a system thread, STATUS_UNSUCCESSFUL for one that has ended.
NT_SERVICE(QueueApcThread, (HANDLE ThreadHandle, PPS_APC_ROUTINE ApcRoutine, PVOID ApcArgument1, PVOID ApcArgument2,
                            PVOID ApcArgument3));
NT_SERVICE(DuplicateObject, (HANDLE SourceProcessHandle, HANDLE SourceHandle, HANDLE TargetProcessHandle,
                             PHANDLE TargetHandle, ACCESS_MASK DesiredAccess, ULONG HandleAttributes, ULONG Options));
#define DUPLICATE_CLOSE_SOURCE 0x1u
#define DUPLICATE_SAME_ACCESS  0x2u
// The parts that SecurityInformation names. Devices only: any other object gives STATUS_NOT_SUPPORTED. Generic rights
// in the lists become the device's specific ones. STATUS_INVALID_SECURITY_DESCR for a missing owner or group.
NT_SERVICE(SetSecurityObject,
           (HANDLE Handle, SECURITY_INFORMATION SecurityInformation, PSECURITY_DESCRIPTOR SecurityDescriptor));
NT_SERVICE(OpenKey, (PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes));
// STATUS_BUFFER_TOO_SMALL when the fixed part does not fit, STATUS_BUFFER_OVERFLOW when the data does not;
// ResultLength is the length that would.
NT_SERVICE(QueryValueKey,
           (HANDLE KeyHandle, PUNICODE_STRING ValueName, KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
            PVOID KeyValueInformation, ULONG Length, PULONG ResultLength));

NT_EXTERN_C_END
