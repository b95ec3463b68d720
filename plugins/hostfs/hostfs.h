// A plugin that serves a directory of the Linux machine. Hosted builds only: it needs a file system below it, and
// nthost's pool. Nothing outside of the directory is ever opened, whatever names, links or other processes do;
// docs/plugin-guide.md describes the boundary, the headers beside this one describe how names, attributes and links are
// mapped.
//
// The table may be used by any number of threads. Several volumes may serve the same directory.
#pragma once

#include <gvnd/plugin_entry.h>

enum class HostFsResolver {
    Best, // one call per path where the kernel offers that, else Walk
    Walk  // one call per component
};

struct HostFsOptions {
    const char* Root;       // a directory; links in this path itself are followed
    bool ReadOnly = false;  // every change fails with STATUS_MEDIA_WRITE_PROTECTED
    const char* Label = ""; // UTF-8, shown until a label has been set; empty: the directory's name
    HostFsResolver Resolver = HostFsResolver::Best;
};

// Raises the process's soft limit of open descriptors to the hard one, since each open object holds a descriptor.
// STATUS_OBJECT_NAME_NOT_FOUND, STATUS_OBJECT_PATH_NOT_FOUND or STATUS_ACCESS_DENIED when the directory cannot be had;
// STATUS_NOT_SUPPORTED when /proc is not mounted, which descriptors are reopened through. The caller owns *operations.
[[nodiscard]] NTSTATUS HostFsCreate(const HostFsOptions& options, PluginOps** operations);

// Closes everything that is open; no call may be running, and none may follow.
void HostFsDestroy(PluginOps* operations);

// Makes a symbolic link, which the table has no operation for: path and target are paths of the volume, and the link
// holds the relative way from the one to the other. The target need not exist. STATUS_OBJECT_NAME_COLLISION if the name
// is taken, STATUS_MEDIA_WRITE_PROTECTED on a volume that takes no changes.
[[nodiscard]] NTSTATUS HostFsMakeLink(PluginOps* operations, PCUNICODE_STRING path, PCUNICODE_STRING target);

// The plugin's entry, under the name that it has beside others in one process. Arguments: "[ro:]DIRECTORY".
extern "C" const GvndPlugin* GvHostfsPlugin(VOID);
