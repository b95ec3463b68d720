// The boundary between gvnd and a storage plugin: the table of operations that a plugin hands to the driver, the
// records that cross, and the services that the driver gives back. C and C++, in a kernel driver and in a Linux process
// alike. docs/plugin-guide.md says what each operation may do; the comments here say what passes.
//
// Memory. Strings and buffers that the driver passes in belong to the driver and are valid during the call only. What
// an operation hands back by pointer (a record, a names block, a value, a string) is one block of pool memory that the
// driver frees with ExFreePoolWithTag(block, 0); a string is one block with the UNICODE_STRING in front and its text in
// it. The driver sets every out pointer to null before the call and frees what it finds there afterwards, also after a
// failure.
//
// Paths begin with a backslash at the volume root, which is a single backslash. Text is 16-bit, not NUL-terminated.
//
// Calls come at PASSIVE_LEVEL, on the requester's thread or on a worker of the volume, and may run at the same time. An
// exception in an operation is contained and counts as STATUS_ACCESS_VIOLATION.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

#include <ntifs.h>

#define GVND_CONTROL_DEVICE_NAME L"\\Device\\GvndCtrlDev"
#define GVND_CONTROL_LINK_NAME   L"\\??\\GvndCtrlDev_SymLink"

// Kernel-mode callers only. Output: the address of the GvServices table, one 8-byte pointer.
#define IOCTL_GVND_GET_SERVICE_TABLE 0x14d514u

#define GVND_PLUGIN_VERSION 8u

// A plugin's handle for an open object. The driver attaches no meaning to its bits, but 0 means that there is none.
typedef ULONGLONG PluginFd;

// Bits of a PluginAccessMask.
typedef ULONG PluginAccessMask;
#define GVND_ACCESS_READ             0x1u // all reads, EA write, DELETE, READ_CONTROL, WRITE_DAC, SYNCHRONIZE
#define GVND_ACCESS_WRITE            0x2u // FILE_WRITE_DATA, FILE_APPEND_DATA
#define GVND_ACCESS_WRITE_ATTRIBUTES 0x4u // FILE_WRITE_ATTRIBUTES
#define GVND_ACCESS_EXECUTE          0x8u // FILE_EXECUTE; files only
#define GVND_ACCESS_ALL              0xfu

// The attributes that pass between driver and plugin: read-only, hidden, system, directory, archive, reparse point.
#define GVND_ATTRIBUTE_MASK 0x437u

// From Lookup and GetInfo. Times are NT times (100 ns since 1601), sizes are bytes.
typedef struct PluginFileInfo {
    LONGLONG CreationTime;
    LONGLONG LastAccessTime;
    LONGLONG LastWriteTime;
    LONGLONG ChangeTime;
    LONGLONG EndOfFile;
    LONGLONG AllocationSize;
    ULONG FileAttributes;
    ULONG Reserved; // not read
    ULONGLONG FileId;
} PluginFileInfo;

// From ReadDirEntry.
typedef struct PluginDirEntry {
    ULONGLONG Reserved; // not read
    LONGLONG CreationTime;
    LONGLONG LastAccessTime;
    LONGLONG LastWriteTime;
    LONGLONG ChangeTime;
    LONGLONG EndOfFile;
    LONGLONG AllocationSize;
    ULONG FileAttributes;
    ULONG FileNameLength; // bytes
    WCHAR FileName[1];
} PluginDirEntry;

// From GetVolInfo.
typedef struct PluginVolInfo {
    LONGLONG VolumeCreationTime;
    ULONG VolumeSerialNumber;
    ULONG Reserved; // not read
    ULONGLONG TotalAllocationUnits;
    ULONGLONG AvailableAllocationUnits;
    ULONG SectorsPerAllocationUnit;
    ULONG BytesPerSector;    // must be 1
    ULONG VolumeLabelLength; // bytes
    WCHAR VolumeLabel[1];
} PluginVolInfo;

// First arguments of every operation but the two notifications. cancel is an auto-reset event: it is set when the
// request that the call serves is cancelled. Whether a call ends early is the plugin's choice.
#define GVND_CALL void *context, PKEVENT cancel

typedef void(NTAPI* PluginNotifyFn)(void* context);
typedef NTSTATUS(NTAPI* PluginGetNormalizedPathFn)(GVND_CALL, PCUNICODE_STRING path, PUNICODE_STRING* normalized);
// constant is 2 and has no meaning; token points to the caller's token.
typedef NTSTATUS(NTAPI* PluginAccessCheckFn)(GVND_CALL, PCUNICODE_STRING path, ULONG constant, PluginAccessMask wanted,
                                             void** token);
typedef NTSTATUS(NTAPI* PluginLookupFn)(GVND_CALL, PCUNICODE_STRING path, PluginFileInfo** info,
                                        PluginAccessMask* maxAccess);
typedef NTSTATUS(NTAPI* PluginOpenFn)(GVND_CALL, PCUNICODE_STRING path, PluginAccessMask wanted, PluginFd* fd);
typedef NTSTATUS(NTAPI* PluginCreateFn)(GVND_CALL, PCUNICODE_STRING casePreservedPath, PluginFd* fd);
// length: bytes wanted in, bytes done out. A read may be short or fail at the end of the file, as the plugin decides.
typedef NTSTATUS(NTAPI* PluginReadFn)(GVND_CALL, PluginFd fd, LONGLONG offset, ULONG* length, void* buffer);
typedef NTSTATUS(NTAPI* PluginWriteFn)(GVND_CALL, PluginFd fd, LONGLONG offset, ULONG* length, const void* buffer);
// index counts entries from 0; STATUS_NO_MORE_FILES ends the listing.
typedef NTSTATUS(NTAPI* PluginReadDirEntryFn)(GVND_CALL, PluginFd fd, ULONG index, PluginDirEntry** entry);
typedef NTSTATUS(NTAPI* PluginGetInfoFn)(GVND_CALL, PluginFd fd, PluginFileInfo** info);
// On success *fileSize is the size that the file has now.
typedef NTSTATUS(NTAPI* PluginSetFileSizeFn)(GVND_CALL, PluginFd fd, LONGLONG* fileSize,
                                             const LONGLONG* allocationSize);
typedef NTSTATUS(NTAPI* PluginSetAttrFn)(GVND_CALL, PluginFd fd, ULONG attributes);
// A time of 0 stays as it is.
typedef NTSTATUS(NTAPI* PluginSetTimeFn)(GVND_CALL, PluginFd fd, LONGLONG creation, LONGLONG lastAccess,
                                         LONGLONG lastWrite, LONGLONG change);
typedef NTSTATUS(NTAPI* PluginGetVolInfoFn)(GVND_CALL, PluginVolInfo** info);
typedef NTSTATUS(NTAPI* PluginSetVolLabelFn)(GVND_CALL, PCUNICODE_STRING label);
typedef NTSTATUS(NTAPI* PluginFdFn)(GVND_CALL, PluginFd fd);
typedef NTSTATUS(NTAPI* PluginRenameFn)(GVND_CALL, PCUNICODE_STRING from, PCUNICODE_STRING to);
typedef NTSTATUS(NTAPI* PluginDeleteFn)(GVND_CALL, PCUNICODE_STRING path);
typedef NTSTATUS(NTAPI* PluginFlushVolFn)(GVND_CALL);
// names: count NUL-terminated ANSI names, back to back; may stay null if count is 0.
typedef NTSTATUS(NTAPI* PluginListEaFn)(GVND_CALL, PluginFd fd, char** names, ULONG* count);
typedef NTSTATUS(NTAPI* PluginGetEaFn)(GVND_CALL, PluginFd fd, const char* name, void** value, ULONG* length);
typedef NTSTATUS(NTAPI* PluginSetEaFn)(GVND_CALL, PluginFd fd, const char* name, const void* value, ULONG length);
typedef NTSTATUS(NTAPI* PluginDeleteEaFn)(GVND_CALL, PluginFd fd, const char* name);
// target must be non-empty and begin with a backslash. other is freed and not read.
typedef NTSTATUS(NTAPI* PluginReadLinkFn)(GVND_CALL, PCUNICODE_STRING path, PUNICODE_STRING* target,
                                          PUNICODE_STRING* other);

// The plugin's table. The driver reads it in place, each slot anew at each call, from the mount until OnUnmounted has
// returned. A null slot fails the operation with STATUS_NOT_SUPPORTED; where that is tolerated the line says so.
typedef struct PluginOps {
    ULONG Version; // GVND_PLUGIN_VERSION
    ULONG Reserved;
    void* PluginContext; // first argument of every operation

    PluginNotifyFn OnMounted;   // optional: the volume is mounted, nobody can have opened it yet
    PluginNotifyFn OnUnmounted; // optional: the last call

    PluginGetNormalizedPathFn GetNormalizedPath; // optional; only for names with a character of 128 or above
    PluginAccessCheckFn AccessCheck;             // optional: then access is what Lookup gives
    PluginLookupFn Lookup;
    PluginOpenFn Open;
    PluginOpenFn OpenDir;
    PluginCreateFn Create;
    PluginCreateFn CreateDir;
    PluginReadFn Read;
    PluginWriteFn Write;
    PluginReadDirEntryFn ReadDirEntry;
    PluginGetInfoFn GetInfo;
    PluginSetFileSizeFn SetFileSize;
    PluginSetAttrFn SetAttr;
    PluginSetTimeFn SetTime; // optional: times are then not kept
    PluginGetVolInfoFn GetVolInfo;
    PluginSetVolLabelFn SetVolLabel;
    PluginFdFn Close; // optional without Rename and Delete, which fail if they cannot close: the handle is forgotten
    PluginRenameFn Rename;
    PluginDeleteFn Delete;
    PluginFlushVolFn FlushVol;
    PluginFdFn FlushFile;
    PluginListEaFn ListEa; // optional: the files have no EAs
    PluginGetEaFn GetEa;
    PluginSetEaFn SetEa;
    PluginDeleteEaFn DeleteEa; // optional: ignored
    PluginReadLinkFn ReadLink;
} PluginOps;

// Mounts a volume: PASSIVE_LEVEL; *device must be null on entry. securityString is SDDL that says who may open the
// device and what is on it, "D:P(A;;GA;;;SY)(A;;GA;;;BA)" for one, or null. The backing path must exist: the driver
// keeps it open, and reads nothing from it. The link name is copied; operations must stay valid until OnUnmounted has
// returned. On failure nothing is left.
typedef NTSTATUS(NTAPI* GvMountFn)(PUNICODE_STRING backingPath, PUNICODE_STRING deviceName, PUNICODE_STRING linkName,
                                   PUNICODE_STRING securityString, const PluginOps* operations, PDEVICE_OBJECT* device);
// Once per mount, PASSIVE_LEVEL; the device must not be used by the caller afterwards. Never waits: the volume goes
// when the last open file and the last running call are gone.
typedef NTSTATUS(NTAPI* GvUnmountRequestFn)(PDEVICE_OBJECT device);

typedef struct GvServices {
    void* Reserved;
    GvMountFn Mount;
    GvUnmountRequestFn UnmountRequest;
} GvServices;

#ifdef __cplusplus
}
#define GVND_STATIC_ASSERT(condition) static_assert(condition, #condition)
#else
#define GVND_STATIC_ASSERT(condition) _Static_assert(condition, #condition)
#endif

// The layout is fixed: 64-bit pointers, little-endian.
#define GVND_AT(type, field, offset) GVND_STATIC_ASSERT(offsetof(type, field) == (offset))
GVND_AT(PluginFileInfo, CreationTime, 0x00);
GVND_AT(PluginFileInfo, LastAccessTime, 0x08);
GVND_AT(PluginFileInfo, LastWriteTime, 0x10);
GVND_AT(PluginFileInfo, ChangeTime, 0x18);
GVND_AT(PluginFileInfo, EndOfFile, 0x20);
GVND_AT(PluginFileInfo, AllocationSize, 0x28);
GVND_AT(PluginFileInfo, FileAttributes, 0x30);
GVND_AT(PluginFileInfo, FileId, 0x38);
GVND_STATIC_ASSERT(sizeof(PluginFileInfo) == 0x40);
GVND_AT(PluginDirEntry, CreationTime, 0x08);
GVND_AT(PluginDirEntry, LastAccessTime, 0x10);
GVND_AT(PluginDirEntry, LastWriteTime, 0x18);
GVND_AT(PluginDirEntry, ChangeTime, 0x20);
GVND_AT(PluginDirEntry, EndOfFile, 0x28);
GVND_AT(PluginDirEntry, AllocationSize, 0x30);
GVND_AT(PluginDirEntry, FileAttributes, 0x38);
GVND_AT(PluginDirEntry, FileNameLength, 0x3c);
GVND_AT(PluginDirEntry, FileName, 0x40);
GVND_AT(PluginVolInfo, VolumeCreationTime, 0x00);
GVND_AT(PluginVolInfo, VolumeSerialNumber, 0x08);
GVND_AT(PluginVolInfo, TotalAllocationUnits, 0x10);
GVND_AT(PluginVolInfo, AvailableAllocationUnits, 0x18);
GVND_AT(PluginVolInfo, SectorsPerAllocationUnit, 0x20);
GVND_AT(PluginVolInfo, BytesPerSector, 0x24);
GVND_AT(PluginVolInfo, VolumeLabelLength, 0x28);
GVND_AT(PluginVolInfo, VolumeLabel, 0x2c);
GVND_AT(PluginOps, Version, 0x00);
GVND_AT(PluginOps, PluginContext, 0x08);
GVND_AT(PluginOps, OnMounted, 0x10);
GVND_AT(PluginOps, OnUnmounted, 0x18);
GVND_AT(PluginOps, GetNormalizedPath, 0x20);
GVND_AT(PluginOps, AccessCheck, 0x28);
GVND_AT(PluginOps, Lookup, 0x30);
GVND_AT(PluginOps, Open, 0x38);
GVND_AT(PluginOps, OpenDir, 0x40);
GVND_AT(PluginOps, Create, 0x48);
GVND_AT(PluginOps, CreateDir, 0x50);
GVND_AT(PluginOps, Read, 0x58);
GVND_AT(PluginOps, Write, 0x60);
GVND_AT(PluginOps, ReadDirEntry, 0x68);
GVND_AT(PluginOps, GetInfo, 0x70);
GVND_AT(PluginOps, SetFileSize, 0x78);
GVND_AT(PluginOps, SetAttr, 0x80);
GVND_AT(PluginOps, SetTime, 0x88);
GVND_AT(PluginOps, GetVolInfo, 0x90);
GVND_AT(PluginOps, SetVolLabel, 0x98);
GVND_AT(PluginOps, Close, 0xa0);
GVND_AT(PluginOps, Rename, 0xa8);
GVND_AT(PluginOps, Delete, 0xb0);
GVND_AT(PluginOps, FlushVol, 0xb8);
GVND_AT(PluginOps, FlushFile, 0xc0);
GVND_AT(PluginOps, ListEa, 0xc8);
GVND_AT(PluginOps, GetEa, 0xd0);
GVND_AT(PluginOps, SetEa, 0xd8);
GVND_AT(PluginOps, DeleteEa, 0xe0);
GVND_AT(PluginOps, ReadLink, 0xe8);
GVND_STATIC_ASSERT(sizeof(PluginOps) == 0xf0);
GVND_AT(GvServices, Mount, 0x08);
GVND_AT(GvServices, UnmountRequest, 0x10);
GVND_STATIC_ASSERT(sizeof(GvServices) == 0x18);
#undef GVND_AT
