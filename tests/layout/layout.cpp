// The public x64 layout of every NT structure that the driver or a plugin reads, writes or embeds. Compiled against
// nthost's headers and against those of the cross toolchain, so that the two builds cannot drift apart: what is proved
// here for one set holds for the other.

#include <gvnd/plugin.h>

#define SIZE(type, size)        static_assert(sizeof(type) == (size))
#define AT(type, field, offset) static_assert(offsetof(type, field) == (offset))

SIZE(WCHAR, 2);
SIZE(LONG, 4);
SIZE(ULONG, 4);
SIZE(LONGLONG, 8);
SIZE(ULONG_PTR, 8);
SIZE(HANDLE, 8);
SIZE(NTSTATUS, 4);
SIZE(BOOLEAN, 1);
SIZE(LARGE_INTEGER, 8);

SIZE(UNICODE_STRING, 0x10);
AT(UNICODE_STRING, MaximumLength, 2);
AT(UNICODE_STRING, Buffer, 8);
SIZE(LIST_ENTRY, 0x10);
SIZE(OBJECT_ATTRIBUTES, 0x30);
AT(OBJECT_ATTRIBUTES, RootDirectory, 0x08);
AT(OBJECT_ATTRIBUTES, ObjectName, 0x10);
AT(OBJECT_ATTRIBUTES, Attributes, 0x18);
AT(OBJECT_ATTRIBUTES, SecurityDescriptor, 0x20);
SIZE(IO_STATUS_BLOCK, 0x10);
AT(IO_STATUS_BLOCK, Information, 8);
SIZE(CLIENT_ID, 0x10);

SIZE(KEVENT, 0x18);
SIZE(KSEMAPHORE, 0x20);
AT(KSEMAPHORE, Limit, 0x18);
SIZE(KSPIN_LOCK, 8);
SIZE(DISPATCHER_HEADER, 0x18);
AT(DISPATCHER_HEADER, SignalState, 0x04);
AT(DISPATCHER_HEADER, WaitListHead, 0x08);

SIZE(ERESOURCE, 0x68);
AT(ERESOURCE, OwnerTable, 0x10);
AT(ERESOURCE, ActiveCount, 0x18);
AT(ERESOURCE, Flag, 0x1a);
AT(ERESOURCE, OwnerEntry, 0x30);
AT(ERESOURCE, SpinLock, 0x60);
SIZE(WORK_QUEUE_ITEM, 0x20);
AT(WORK_QUEUE_ITEM, WorkerRoutine, 0x10);

SIZE(MDL, 0x30);
AT(MDL, Size, 0x08);
AT(MDL, MdlFlags, 0x0a);
AT(MDL, Process, 0x10);
AT(MDL, MappedSystemVa, 0x18);
AT(MDL, StartVa, 0x20);
AT(MDL, ByteCount, 0x28);
AT(MDL, ByteOffset, 0x2c);

SIZE(IRP, 0xd0);
AT(IRP, MdlAddress, 0x08);
AT(IRP, Flags, 0x10);
AT(IRP, AssociatedIrp, 0x18);
AT(IRP, ThreadListEntry, 0x20);
AT(IRP, IoStatus, 0x30);
AT(IRP, RequestorMode, 0x40);
AT(IRP, PendingReturned, 0x41);
AT(IRP, StackCount, 0x42);
AT(IRP, CurrentLocation, 0x43);
AT(IRP, Cancel, 0x44);
AT(IRP, CancelIrql, 0x45);
AT(IRP, UserIosb, 0x48);
AT(IRP, UserEvent, 0x50);
AT(IRP, Overlay, 0x58);
AT(IRP, CancelRoutine, 0x68);
AT(IRP, UserBuffer, 0x70);
AT(IRP, Tail.Overlay.DriverContext, 0x78);
AT(IRP, Tail.Overlay.Thread, 0x98);
AT(IRP, Tail.Overlay.ListEntry, 0xa8);
AT(IRP, Tail.Overlay.CurrentStackLocation, 0xb8);
AT(IRP, Tail.Overlay.OriginalFileObject, 0xc0);

SIZE(IO_STACK_LOCATION, 0x48);
AT(IO_STACK_LOCATION, MinorFunction, 1);
AT(IO_STACK_LOCATION, Flags, 2);
AT(IO_STACK_LOCATION, Control, 3);
AT(IO_STACK_LOCATION, Parameters, 0x08);
AT(IO_STACK_LOCATION, DeviceObject, 0x28);
AT(IO_STACK_LOCATION, FileObject, 0x30);
AT(IO_STACK_LOCATION, CompletionRoutine, 0x38);
AT(IO_STACK_LOCATION, Context, 0x40);
AT(IO_STACK_LOCATION, Parameters.Create.SecurityContext, 0x08);
AT(IO_STACK_LOCATION, Parameters.Create.Options, 0x10);
AT(IO_STACK_LOCATION, Parameters.Create.FileAttributes, 0x18);
AT(IO_STACK_LOCATION, Parameters.Create.ShareAccess, 0x1a);
AT(IO_STACK_LOCATION, Parameters.Create.EaLength, 0x20);
AT(IO_STACK_LOCATION, Parameters.Read.Length, 0x08);
AT(IO_STACK_LOCATION, Parameters.Read.Key, 0x10);
AT(IO_STACK_LOCATION, Parameters.Read.ByteOffset, 0x18);
AT(IO_STACK_LOCATION, Parameters.Write.ByteOffset, 0x18);
AT(IO_STACK_LOCATION, Parameters.QueryDirectory.Length, 0x08);
AT(IO_STACK_LOCATION, Parameters.QueryDirectory.FileName, 0x10);
AT(IO_STACK_LOCATION, Parameters.QueryDirectory.FileInformationClass, 0x18);
AT(IO_STACK_LOCATION, Parameters.QueryDirectory.FileIndex, 0x20);
AT(IO_STACK_LOCATION, Parameters.QueryFile.FileInformationClass, 0x10);
AT(IO_STACK_LOCATION, Parameters.SetFile.FileInformationClass, 0x10);
AT(IO_STACK_LOCATION, Parameters.SetFile.FileObject, 0x18);
AT(IO_STACK_LOCATION, Parameters.SetFile.ReplaceIfExists, 0x20);
AT(IO_STACK_LOCATION, Parameters.QueryEa.EaList, 0x10);
AT(IO_STACK_LOCATION, Parameters.QueryEa.EaListLength, 0x18);
AT(IO_STACK_LOCATION, Parameters.QueryEa.EaIndex, 0x20);
AT(IO_STACK_LOCATION, Parameters.QueryVolume.FsInformationClass, 0x10);
AT(IO_STACK_LOCATION, Parameters.FileSystemControl.InputBufferLength, 0x10);
AT(IO_STACK_LOCATION, Parameters.FileSystemControl.FsControlCode, 0x18);
AT(IO_STACK_LOCATION, Parameters.FileSystemControl.Type3InputBuffer, 0x20);
AT(IO_STACK_LOCATION, Parameters.LockControl.Length, 0x08);
AT(IO_STACK_LOCATION, Parameters.LockControl.Key, 0x10);
AT(IO_STACK_LOCATION, Parameters.LockControl.ByteOffset, 0x18);
AT(IO_STACK_LOCATION, Parameters.DeviceIoControl.OutputBufferLength, 0x08);
AT(IO_STACK_LOCATION, Parameters.DeviceIoControl.InputBufferLength, 0x10);
AT(IO_STACK_LOCATION, Parameters.DeviceIoControl.IoControlCode, 0x18);
AT(IO_STACK_LOCATION, Parameters.DeviceIoControl.Type3InputBuffer, 0x20);

SIZE(FILE_OBJECT, 0xd8);
AT(FILE_OBJECT, DeviceObject, 0x08);
AT(FILE_OBJECT, FsContext, 0x18);
AT(FILE_OBJECT, FsContext2, 0x20);
AT(FILE_OBJECT, SectionObjectPointer, 0x28);
AT(FILE_OBJECT, RelatedFileObject, 0x40);
AT(FILE_OBJECT, DeletePending, 0x49);
AT(FILE_OBJECT, ReadAccess, 0x4a);
AT(FILE_OBJECT, SharedDelete, 0x4f);
AT(FILE_OBJECT, Flags, 0x50);
AT(FILE_OBJECT, FileName, 0x58);
AT(FILE_OBJECT, CurrentByteOffset, 0x68);
AT(FILE_OBJECT, Lock, 0x80);
AT(FILE_OBJECT, Event, 0x98);
AT(FILE_OBJECT, CompletionContext, 0xb0);
AT(FILE_OBJECT, IrpList, 0xc0);

// Not its size, which one header set pads and the other does not: nobody embeds a device object.
AT(DEVICE_OBJECT, ReferenceCount, 0x04);
AT(DEVICE_OBJECT, DriverObject, 0x08);
AT(DEVICE_OBJECT, NextDevice, 0x10);
AT(DEVICE_OBJECT, Flags, 0x30);
AT(DEVICE_OBJECT, Characteristics, 0x34);
AT(DEVICE_OBJECT, DeviceExtension, 0x40);
AT(DEVICE_OBJECT, DeviceType, 0x48);
AT(DEVICE_OBJECT, StackSize, 0x4c);
AT(DEVICE_OBJECT, AlignmentRequirement, 0x98);
AT(DEVICE_OBJECT, SecurityDescriptor, 0x110);
AT(DEVICE_OBJECT, SectorSize, 0x130);
AT(DEVICE_OBJECT, DeviceObjectExtension, 0x138);
AT(DEVICE_OBJECT, Reserved, 0x140);

SIZE(DRIVER_OBJECT, 0x150);
AT(DRIVER_OBJECT, DeviceObject, 0x08);
AT(DRIVER_OBJECT, DriverName, 0x38);
AT(DRIVER_OBJECT, FastIoDispatch, 0x50);
AT(DRIVER_OBJECT, DriverUnload, 0x68);
AT(DRIVER_OBJECT, MajorFunction, 0x70);

SIZE(FAST_IO_DISPATCH, 224);
AT(FAST_IO_DISPATCH, FastIoCheckIfPossible, 0x08);
AT(FAST_IO_DISPATCH, FastIoDeviceControl, 0x50);
AT(FAST_IO_DISPATCH, AcquireFileForNtCreateSection, 0x58);
AT(FAST_IO_DISPATCH, ReleaseFileForNtCreateSection, 0x60);
AT(FAST_IO_DISPATCH, AcquireForModWrite, 0x78);
AT(FAST_IO_DISPATCH, ReleaseForModWrite, 0xc8);
AT(FAST_IO_DISPATCH, AcquireForCcFlush, 0xd0);
AT(FAST_IO_DISPATCH, ReleaseForCcFlush, 0xd8);

SIZE(IO_SECURITY_CONTEXT, 0x18);
AT(IO_SECURITY_CONTEXT, AccessState, 0x08);
AT(IO_SECURITY_CONTEXT, DesiredAccess, 0x10);
AT(ACCESS_STATE, RemainingDesiredAccess, 0x10);
AT(ACCESS_STATE, PreviouslyGrantedAccess, 0x14);
AT(ACCESS_STATE, OriginalDesiredAccess, 0x18);
AT(ACCESS_STATE, SubjectSecurityContext, 0x20);
SIZE(SECURITY_SUBJECT_CONTEXT, 0x20);
AT(SECURITY_SUBJECT_CONTEXT, PrimaryToken, 0x10);

SIZE(ACL, 8);
AT(ACL, AclSize, 2);
AT(ACL, AceCount, 4);
SIZE(ACCESS_ALLOWED_ACE, 0x0c);
AT(ACCESS_ALLOWED_ACE, Mask, 4);
AT(ACCESS_ALLOWED_ACE, SidStart, 8);
AT(SID, SubAuthority, 8);
SIZE(SECURITY_DESCRIPTOR, 0x28);
AT(SECURITY_DESCRIPTOR, Control, 2);
AT(SECURITY_DESCRIPTOR, Owner, 0x08);
AT(SECURITY_DESCRIPTOR, Dacl, 0x20);
SIZE(SECURITY_DESCRIPTOR_RELATIVE, 0x14);
AT(SECURITY_DESCRIPTOR_RELATIVE, Control, 2);
AT(SECURITY_DESCRIPTOR_RELATIVE, Dacl, 0x10);
AT(SE_EXPORTS, SeWorldSid, 0xc0);
AT(SE_EXPORTS, SeAnonymousLogonSid, 0x160);
AT(SE_EXPORTS, SeLocalServiceSid, 0x180);
AT(SE_EXPORTS, SeOwnerRightsSid, 0x200);

SIZE(IO_ERROR_LOG_PACKET, 48);
AT(IO_ERROR_LOG_PACKET, EventCategory, 0x08);
AT(IO_ERROR_LOG_PACKET, ErrorCode, 0x0c);
AT(IO_ERROR_LOG_PACKET, UniqueErrorValue, 0x10);
AT(IO_ERROR_LOG_PACKET, FinalStatus, 0x14);
AT(IO_ERROR_LOG_PACKET, DeviceOffset, 0x20);
AT(IO_ERROR_LOG_PACKET, DumpData, 0x28);
AT(KEY_VALUE_PARTIAL_INFORMATION, Type, 4);
AT(KEY_VALUE_PARTIAL_INFORMATION, DataLength, 8);
AT(KEY_VALUE_PARTIAL_INFORMATION, Data, 12);

SIZE(SECTION_OBJECT_POINTERS, 0x18);
SIZE(SHARE_ACCESS, 0x1c);
AT(SHARE_ACCESS, Deleters, 0x0c);
AT(SHARE_ACCESS, SharedDelete, 0x18);
SIZE(FSRTL_COMMON_FCB_HEADER, 0x30);
AT(FSRTL_COMMON_FCB_HEADER, IsFastIoPossible, 0x05);
AT(FSRTL_COMMON_FCB_HEADER, Resource, 0x08);
AT(FSRTL_COMMON_FCB_HEADER, PagingIoResource, 0x10);
AT(FSRTL_COMMON_FCB_HEADER, AllocationSize, 0x18);
AT(FSRTL_COMMON_FCB_HEADER, FileSize, 0x20);
AT(FSRTL_COMMON_FCB_HEADER, ValidDataLength, 0x28);
SIZE(FILE_LOCK_INFO, 0x30);
SIZE(FILE_LOCK, 0x60);
AT(FILE_LOCK, LockInformation, 0x18);
AT(FILE_LOCK, LockRequestsInProgress, 0x58);
SIZE(UNICODE_PREFIX_TABLE, 0x18);
AT(UNICODE_PREFIX_TABLE, LastNextEntry, 0x10);
SIZE(UNICODE_PREFIX_TABLE_ENTRY, 0x38);
AT(UNICODE_PREFIX_TABLE_ENTRY, CaseMatch, 0x10);
AT(UNICODE_PREFIX_TABLE_ENTRY, Links, 0x18);
AT(UNICODE_PREFIX_TABLE_ENTRY, Prefix, 0x30);

SIZE(FILE_DIRECTORY_INFORMATION, 72);
AT(FILE_DIRECTORY_INFORMATION, FileName, 64);
SIZE(FILE_FULL_DIR_INFORMATION, 72);
AT(FILE_FULL_DIR_INFORMATION, FileName, 68);
SIZE(FILE_BOTH_DIR_INFORMATION, 96);
AT(FILE_BOTH_DIR_INFORMATION, FileName, 94);
SIZE(FILE_NAMES_INFORMATION, 16);
AT(FILE_NAMES_INFORMATION, FileName, 12);
SIZE(FILE_ID_BOTH_DIR_INFORMATION, 112);
AT(FILE_ID_BOTH_DIR_INFORMATION, FileName, 104);
SIZE(FILE_ID_FULL_DIR_INFORMATION, 88);
AT(FILE_ID_FULL_DIR_INFORMATION, FileName, 80);
SIZE(FILE_BASIC_INFORMATION, 40);
SIZE(FILE_STANDARD_INFORMATION, 24);
SIZE(FILE_NAME_INFORMATION, 8);
AT(FILE_RENAME_INFORMATION, RootDirectory, 8);
AT(FILE_RENAME_INFORMATION, FileName, 20);
SIZE(FILE_RENAME_INFORMATION, 24);
AT(FILE_LINK_INFORMATION, FileName, 20);
AT(FILE_ALL_INFORMATION, InternalInformation, 64);
AT(FILE_ALL_INFORMATION, EaInformation, 72);
AT(FILE_ALL_INFORMATION, AccessInformation, 76);
AT(FILE_ALL_INFORMATION, PositionInformation, 80);
AT(FILE_ALL_INFORMATION, ModeInformation, 88);
AT(FILE_ALL_INFORMATION, NameInformation, 96);
SIZE(FILE_ALL_INFORMATION, 104);
SIZE(FILE_NETWORK_OPEN_INFORMATION, 56);
AT(FILE_NETWORK_OPEN_INFORMATION, AllocationSize, 32);
AT(FILE_FULL_EA_INFORMATION, EaValueLength, 6);
AT(FILE_FULL_EA_INFORMATION, EaName, 8);
AT(FILE_GET_EA_INFORMATION, EaName, 5);
SIZE(FILE_FS_VOLUME_INFORMATION, 24);
AT(FILE_FS_VOLUME_INFORMATION, VolumeLabel, 18);
AT(FILE_FS_LABEL_INFORMATION, VolumeLabel, 4);
SIZE(FILE_FS_SIZE_INFORMATION, 24);
SIZE(FILE_FS_ATTRIBUTE_INFORMATION, 16);
AT(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemName, 12);
SIZE(FILE_FS_FULL_SIZE_INFORMATION, 32);

// Values that select a behaviour of the platform.
static_assert(IRP_MJ_MAXIMUM_FUNCTION == 0x1b && IRP_MJ_LOCK_CONTROL == 0x11 && IRP_MJ_CLEANUP == 0x12);
static_assert(FILE_DEVICE_FILE_SYSTEM == 9 && FILE_DEVICE_DISK_FILE_SYSTEM == 8 && FILE_DEVICE_SECURE_OPEN == 0x100);
static_assert(NotificationEvent == 0 && SynchronizationEvent == 1 && WaitAll == 0 && WaitAny == 1);
static_assert(DelayedWorkQueue == 1 && NonPagedPool == 0 && PagedPool == 1 && KernelMode == 0 && UserMode == 1);
static_assert(IoReadAccess == 0 && IoWriteAccess == 1 && MmCached == 1 && NormalPagePriority == 16);
static_assert(KeyValuePartialInformation == 2 && Executive == 0);
static_assert(FileDirectoryInformation == 1 && FileNamesInformation == 12 && FileIdBothDirectoryInformation == 37 &&
              FileIdFullDirectoryInformation == 38 && FileFsVolumeInformation == 1);
static_assert(IRP_SYNCHRONOUS_API == 4 && IRP_PAGING_IO == 2 && FO_SYNCHRONOUS_IO == 2 && IRP_MN_MDL == 2);
static_assert(MDL_MAPPED_TO_SYSTEM_VA == 1 && MDL_SOURCE_IS_NONPAGED_POOL == 4 && MDL_PAGES_LOCKED == 2);
static_assert(SL_OPEN_PAGING_FILE == 2 && SL_CASE_SENSITIVE == 0x80 && SL_OPEN_TARGET_DIRECTORY == 4);
static_assert(SL_RESTART_SCAN == 1 && SL_RETURN_SINGLE_ENTRY == 2 && SL_INDEX_SPECIFIED == 4);
static_assert(SL_FAIL_IMMEDIATELY == 1 && SL_EXCLUSIVE_LOCK == 2 && SL_PENDING_RETURNED == 1);
static_assert(FSRTL_NTFS_LEGAL == 4 && FSRTL_FSP_TOP_LEVEL_IRP == 1 && FSRTL_CACHE_TOP_LEVEL_IRP == 2);
static_assert(DO_DEVICE_INITIALIZING == 0x80 && OBJ_KERNEL_HANDLE == 0x200 && OBJ_CASE_INSENSITIVE == 0x40);
