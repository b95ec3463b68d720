// What a file system keeps per file with the run-time library's help: the common file header, byte-range locks, share
// access records, the change-notification synchroniser. The caller owns the records and keeps each alive, as its own
// file record, across every call on it. The lock package locks for itself; header and share access are under the
// caller's lock.
#pragma once

#include "io.h"

NT_EXTERN_C_BEGIN

#define FsRtlEnterFileSystem KeEnterCriticalRegion
#define FsRtlExitFileSystem  KeLeaveCriticalRegion

// --- the header that FsContext points to

typedef enum _FAST_IO_POSSIBLE { FastIoIsNotPossible = 0, FastIoIsPossible, FastIoIsQuestionable } FAST_IO_POSSIBLE;

#define FSRTL_FCB_HEADER_V0 0x00
#define FSRTL_FCB_HEADER_V1 0x01

// Flags
#define FSRTL_FLAG_FILE_MODIFIED        0x01
#define FSRTL_FLAG_FILE_LENGTH_CHANGED  0x02
#define FSRTL_FLAG_LIMIT_MODIFIED_PAGES 0x04
#define FSRTL_FLAG_ACQUIRE_MAIN_RSRC_EX 0x08
#define FSRTL_FLAG_ACQUIRE_MAIN_RSRC_SH 0x10
#define FSRTL_FLAG_USER_MAPPED_FILE     0x20
#define FSRTL_FLAG_ADVANCED_HEADER      0x40
#define FSRTL_FLAG_EOF_ADVANCE_ACTIVE   0x80
// Flags2
#define FSRTL_FLAG2_DO_MODIFIED_WRITE        0x01
#define FSRTL_FLAG2_SUPPORTS_FILTER_CONTEXTS 0x02
#define FSRTL_FLAG2_PURGE_WHEN_MAPPED        0x04
#define FSRTL_FLAG2_IS_PAGING_FILE           0x08

typedef struct _FSRTL_COMMON_FCB_HEADER {
    CSHORT NodeTypeCode;
    CSHORT NodeByteSize;
    UCHAR Flags;
    UCHAR IsFastIoPossible; // FAST_IO_POSSIBLE
    UCHAR Flags2;
    UCHAR Reserved : 4;
    UCHAR Version : 4;
    PERESOURCE Resource;
    PERESOURCE PagingIoResource;
    LARGE_INTEGER AllocationSize;
    LARGE_INTEGER FileSize;
    LARGE_INTEGER ValidDataLength;
} FSRTL_COMMON_FCB_HEADER, *PFSRTL_COMMON_FCB_HEADER;

// --- byte-range locks
//
// Offsets and lengths are unsigned 64-bit numbers; a range may end at the last of them. A lock belongs to a file
// object, process and key together. An exclusive lock is granted where no lock overlaps it, the owner's included; a
// shared one where no exclusive lock of another owner does. A range of length zero is the point before its offset: it
// overlaps ranges that hold both neighbours of the point, and no other range of length zero.

typedef struct _FILE_LOCK_INFO {
    LARGE_INTEGER StartingByte;
    LARGE_INTEGER Length;
    BOOLEAN ExclusiveLock;
    ULONG Key;
    PFILE_OBJECT FileObject;
    PVOID ProcessId; // the PEPROCESS
    LARGE_INTEGER EndingByte;
} FILE_LOCK_INFO, *PFILE_LOCK_INFO;

// Called in place of IoCompleteRequest for every lock and unlock request, with the outcome in Irp->IoStatus; it
// completes the request. When it returns a failure for a lock that was granted, the lock is taken back.
typedef NTSTATUS(NTAPI* PCOMPLETE_LOCK_IRP_ROUTINE)(PVOID Context, PIRP Irp);
// Called for every lock that an unlock has released.
typedef VOID(NTAPI* PUNLOCK_ROUTINE)(PVOID Context, PFILE_LOCK_INFO FileLockInfo);

typedef struct _FILE_LOCK {
    PCOMPLETE_LOCK_IRP_ROUTINE CompleteLockIrpRoutine;
    PUNLOCK_ROUTINE UnlockRoutine;
    BOOLEAN FastIoIsQuestionable; // whether any lock is held
    BOOLEAN SpareC[3];
    PVOID LockInformation; // the package's; null until the first lock is asked for
    FILE_LOCK_INFO LastReturnedLockInfo;
    PVOID LastReturnedLock;
    volatile LONG LockRequestsInProgress;
} FILE_LOCK, *PFILE_LOCK;

NTKERNELAPI VOID NTAPI FsRtlInitializeFileLock(PFILE_LOCK FileLock, PCOMPLETE_LOCK_IRP_ROUTINE CompleteLockIrpRoutine,
                                               PUNLOCK_ROUTINE UnlockRoutine);
// Requests that still wait end with STATUS_RANGE_NOT_LOCKED; locks still held go without UnlockRoutine.
NTKERNELAPI VOID NTAPI FsRtlUninitializeFileLock(PFILE_LOCK FileLock);

// Serves an IRP_MJ_LOCK_CONTROL request and completes it, at once or, with STATUS_PENDING returned, when the range
// comes free: the caller must not touch it afterwards. STATUS_LOCK_NOT_GRANTED (SL_FAIL_IMMEDIATELY),
// STATUS_INVALID_LOCK_RANGE, STATUS_RANGE_NOT_LOCKED (unlocks), STATUS_CANCELLED, STATUS_INSUFFICIENT_RESOURCES,
// STATUS_INVALID_DEVICE_REQUEST (unknown minor function).
NTKERNELAPI NTSTATUS NTAPI FsRtlProcessFileLock(PFILE_LOCK FileLock, PIRP Irp, PVOID Context);

// One lock. Without an Irp a lock that would have to wait is refused with FALSE, and a shortage of memory raises
// STATUS_INSUFFICIENT_RESOURCES; otherwise TRUE, with the outcome in IoStatus.
NTKERNELAPI BOOLEAN NTAPI FsRtlPrivateLock(PFILE_LOCK FileLock, PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset,
                                           PLARGE_INTEGER Length, PEPROCESS Process, ULONG Key, BOOLEAN FailImmediately,
                                           BOOLEAN ExclusiveLock, PIO_STATUS_BLOCK IoStatus, PIRP Irp, PVOID Context,
                                           BOOLEAN AlreadySynchronized);
#define FsRtlFastLock(FileLock, FileObject, FileOffset, Length, Process, Key, FailImmediately, ExclusiveLock, \
                      IoStatus, Context, AlreadySynchronized)                                                 \
    FsRtlPrivateLock((FileLock), (FileObject), (FileOffset), (Length), (Process), (Key), (FailImmediately),   \
                     (ExclusiveLock), (IoStatus), NULL, (Context), (AlreadySynchronized))

// Each unlock grants what it made room for, in order of arrival. A single unlock needs the lock's exact range and
// owner, and takes an exclusive lock before a shared one; STATUS_RANGE_NOT_LOCKED if there is none.
NTKERNELAPI NTSTATUS NTAPI FsRtlFastUnlockSingle(PFILE_LOCK FileLock, PFILE_OBJECT FileObject,
                                                 PLARGE_INTEGER FileOffset, PLARGE_INTEGER Length, PEPROCESS Process,
                                                 ULONG Key, PVOID Context, BOOLEAN AlreadySynchronized);
// All locks of the file object and process, of any key or of one. Its requests that wait end with
// STATUS_RANGE_NOT_LOCKED. STATUS_RANGE_NOT_LOCKED only where no lock was ever asked for.
NTKERNELAPI NTSTATUS NTAPI FsRtlFastUnlockAll(PFILE_LOCK FileLock, PFILE_OBJECT FileObject, PEPROCESS Process,
                                              PVOID Context);
NTKERNELAPI NTSTATUS NTAPI FsRtlFastUnlockAllByKey(PFILE_LOCK FileLock, PFILE_OBJECT FileObject, PEPROCESS Process,
                                                   ULONG Key, PVOID Context);

// FALSE if a lock forbids the transfer: a read, an exclusive lock of another owner; a write, that and any shared lock,
// the owner's included. Transfers of no bytes are never forbidden.
NTKERNELAPI BOOLEAN NTAPI FsRtlCheckLockForReadAccess(PFILE_LOCK FileLock, PIRP Irp);
NTKERNELAPI BOOLEAN NTAPI FsRtlCheckLockForWriteAccess(PFILE_LOCK FileLock, PIRP Irp);
NTKERNELAPI BOOLEAN NTAPI FsRtlFastCheckLockForRead(PFILE_LOCK FileLock, PLARGE_INTEGER FileOffset,
                                                    PLARGE_INTEGER Length, ULONG Key, PFILE_OBJECT FileObject,
                                                    PVOID Process);
NTKERNELAPI BOOLEAN NTAPI FsRtlFastCheckLockForWrite(PFILE_LOCK FileLock, PLARGE_INTEGER FileOffset,
                                                     PLARGE_INTEGER Length, ULONG Key, PFILE_OBJECT FileObject,
                                                     PVOID Process);

// The held locks one by one, null after the last. What is returned stands in the FILE_LOCK, where it also marks the
// place: the caller lets one enumeration run at a time. Locks may come and go meanwhile.
NTKERNELAPI PFILE_LOCK_INFO NTAPI FsRtlGetNextFileLock(PFILE_LOCK FileLock, BOOLEAN Restart);
#define FsRtlAreThereCurrentFileLocks(FileLock) \
    ((BOOLEAN)__atomic_load_n(&(FileLock)->FastIoIsQuestionable, __ATOMIC_ACQUIRE))

// --- share access: counts over the opens of a file that want to read (FILE_READ_DATA, FILE_EXECUTE), write
// (FILE_WRITE_DATA, FILE_APPEND_DATA) or delete (DELETE) it. Opens that want none of these neither count nor conflict.

typedef struct _SHARE_ACCESS {
    ULONG OpenCount;
    ULONG Readers;
    ULONG Writers;
    ULONG Deleters;
    ULONG SharedRead;
    ULONG SharedWrite;
    ULONG SharedDelete;
} SHARE_ACCESS, *PSHARE_ACCESS;

// STATUS_SHARING_VIOLATION if the access clashes with what is recorded, or what is recorded with the sharing. The file
// object notes the open in any case; it is counted only with Update and without a clash.
NTKERNELAPI NTSTATUS NTAPI IoCheckShareAccess(ACCESS_MASK DesiredAccess, ULONG DesiredShareAccess,
                                              PFILE_OBJECT FileObject, PSHARE_ACCESS ShareAccess, BOOLEAN Update);
// Starts the record anew with this open as the only one.
NTKERNELAPI VOID NTAPI IoSetShareAccess(ACCESS_MASK DesiredAccess, ULONG DesiredShareAccess, PFILE_OBJECT FileObject,
                                        PSHARE_ACCESS ShareAccess);
// Count in, and out, what the file object has noted.
NTKERNELAPI VOID NTAPI IoUpdateShareAccess(PFILE_OBJECT FileObject, PSHARE_ACCESS ShareAccess);
NTKERNELAPI VOID NTAPI IoRemoveShareAccess(PFILE_OBJECT FileObject, PSHARE_ACCESS ShareAccess);

// --- change notification

typedef PVOID PNOTIFY_SYNC;

// Raises STATUS_INSUFFICIENT_RESOURCES without memory. Uninitializing leaves null, and takes null.
NTKERNELAPI VOID NTAPI FsRtlNotifyInitializeSync(PNOTIFY_SYNC* NotifySync);
NTKERNELAPI VOID NTAPI FsRtlNotifyUninitializeSync(PNOTIFY_SYNC* NotifySync);

NT_EXTERN_C_END
