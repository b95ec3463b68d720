// The workbench for programs in C: boots the kernel interface in this process, loads the driver, mounts a plugin's
// table and uses the volume. Statuses are those of the requests. All NT services of ntifs.h can be called beside it, on
// the thread that called WbStart.
//
//     WbHost* host;
//     WbVolume* volume;
//     char text[16];
//     ULONG length = sizeof text;
//     HANDLE file;
//     if (!NT_SUCCESS(WbStart(&host))) return 1;
//     if (NT_SUCCESS(WbMount(host, "Mine", NULL, MyTable(), &volume))) {
//         if (NT_SUCCESS(WbOpen(volume, "/hello.txt", NULL, &file))) {
//             WbRead(file, 0, text, &length);
//             WbClose(file);
//         }
//         WbUnmount(volume);
//     }
//     return WbFinish(host);
#pragma once

#include <gvnd/plugin.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct WbHost WbHost;
typedef struct WbVolume WbVolume;
typedef struct WbUser WbUser;

// Boots and loads the driver. One host at a time.
NTSTATUS WbStart(WbHost** host);
// Another driver, such as a plugin that is one and mounts itself.
NTSTATUS WbLoadDriver(WbHost* host, const char* name, PDRIVER_INITIALIZE entry);
// Unloads and shuts down; all volumes must be unmounted. What was left and what was found goes to standard error. 0, or
// 4 when there was any: an exit code.
int WbFinish(WbHost* host);

// The driver's trace on standard error, or not.
void WbTrace(BOOLEAN on);
// "STATUS_ACCESS_DENIED", or the number; valid until the thread's next call.
const char* WbStatusName(NTSTATUS status);

// At \??\name; sddl may be null. The table must outlive the volume.
NTSTATUS WbMount(WbHost* host, const char* name, const char* sddl, const PluginOps* table, WbVolume** volume);
// Returns once OnUnmounted has been called, so all handles must be closed. The volume is gone, whatever is returned.
NTSTATUS WbUnmount(WbVolume* volume);

// What the plugin was called for, by the slot's name, since the mount or the last WbForgetCalls.
ULONG WbCallCount(WbVolume* volume, const char* operation);
void WbForgetCalls(WbVolume* volume);
// The nth call of the operation from now on, counted from 1, fails and does not reach the plugin.
void WbFailCall(WbVolume* volume, const char* operation, NTSTATUS status, unsigned nth);

typedef struct WbOpenHow {
    ACCESS_MASK Access;
    ULONG Share;
    ULONG Disposition;
    ULONG Options; // beside FILE_SYNCHRONOUS_IO_NONALERT
    ULONG Attributes;
} WbOpenHow;

// A path from the volume's root, '/' and '\' both separate, in UTF-8. Without how: for reading, if it is there, shared
// with everybody.
NTSTATUS WbOpen(WbVolume* volume, const char* path, const WbOpenHow* how, HANDLE* handle);
NTSTATUS WbClose(HANDLE handle);

// length: bytes wanted in, bytes done out.
NTSTATUS WbRead(HANDLE file, LONGLONG offset, void* buffer, ULONG* length);
NTSTATUS WbWrite(HANDLE file, LONGLONG offset, const void* buffer, ULONG* length);
NTSTATUS WbSetSize(HANDLE file, LONGLONG size);
// At the last close; needs DELETE.
NTSTATUS WbDelete(HANDLE file);
// A path as for WbOpen; needs DELETE.
NTSTATUS WbRename(WbVolume* volume, HANDLE file, const char* path, BOOLEAN replace);

typedef struct WbEntry {
    const char* Name; // UTF-8, valid during the call
    ULONG Attributes;
    ULONGLONG Size;
} WbEntry;
// Calls each for every entry of the directory but "." and ".."; pattern may be null.
NTSTATUS WbList(WbVolume* volume, const char* path, const char* pattern,
                void (*each)(void* context, const WbEntry* entry), void* context);

// From here to WbActAsSelf the thread acts for a process of that user: "S-1-5-21-1-2-3-1002+S-1-5-32-544", groups
// behind the user. STATUS_INVALID_PARAMETER for what is no SID. Handles that it opens meanwhile end with it.
NTSTATUS WbActAs(const char* sids, WbUser** user);
void WbActAsSelf(WbUser* user);

#ifdef __cplusplus
}
#endif
