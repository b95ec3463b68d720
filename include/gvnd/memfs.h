// A file system in memory behind the plugin table. This is the whole interface of its core: its entry makes one for
// a kernel service, and a program that runs the driver inside its own process makes one directly and passes the table
// to GvServices.Mount. PASSIVE_LEVEL throughout.
#pragma once

#include <gvnd/plugin_entry.h>

#ifdef __cplusplus
extern "C" {
#endif

// Zeroed options are good options.
typedef struct MemFsOptions {
    ULONGLONG CapacityBytes; // 0 means 1 GiB; rounded down to whole 4096-byte units; at most 64 TiB
    PCUNICODE_STRING Label;  // at most 32 characters; null for none
    ULONG SerialNumber;      // 0 takes one from the time of creation
} MemFsOptions;

// An extended attribute of this name makes its file a link: the value is the target, 16-bit text that is a path from
// the volume root. Removing the attribute makes it a plain file again, with the data that it had.
#define MEMFS_LINK_EA_NAME "$GVLINK"

// An empty volume. options may be null. STATUS_INVALID_PARAMETER for a capacity out of range,
// STATUS_INVALID_VOLUME_LABEL, STATUS_INSUFFICIENT_RESOURCES; *ops is null then.
NTSTATUS NTAPI MemFsCreate(const MemFsOptions* options, PluginOps** ops);

// Returns once OnUnmounted has been called on the table.
VOID NTAPI MemFsWaitUntilUnmounted(PluginOps* ops);

// Frees everything, open handles included. No operation may be running or follow.
VOID NTAPI MemFsDestroy(PluginOps* ops);

#ifndef _WIN32
// The service's entry, for loading it into the process that hosts the driver; plugins/entry/plugin_driver.cpp says what
// its service key may hold. And the plugin's, with arguments "capacity=SIZE,label=TEXT".
NTSTATUS NTAPI GvMemfsDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);
const GvndPlugin* GvMemfsPlugin(VOID);
#endif

#ifdef __cplusplus
}
#endif
