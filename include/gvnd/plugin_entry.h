// How a plugin is made ready for use, wherever it runs: one C function that every plugin exports. It names the plugin
// and makes, awaits and ends volumes; what a volume does is the table of gvnd/plugin.h. A program that loads plugins
// calls it, and so does the driver that makes a kernel service of a plugin (share/gvnd/plugin_driver.cpp).
#pragma once

#include <gvnd/plugin.h>

#ifdef __cplusplus
extern "C" {
#endif

// Of a program and a plugin that agree on the version, the calls between them agree as well: a build for kernel images
// has the kernel's calling convention in a process too, and says so in the upper half.
#if defined(_WIN32) || (defined(NTHOST_MS_ABI) && NTHOST_MS_ABI)
#define GVND_PLUGIN_ENTRY_VERSION 0x10001u
#else
#define GVND_PLUGIN_ENTRY_VERSION 1u
#endif

typedef struct GvndPlugin {
    ULONG Version; // GVND_PLUGIN_ENTRY_VERSION
    ULONG Reserved;
    const char* Name;      // short and without blanks: a volume of a service is \??\Name
    const char* Summary;   // one line
    const char* Arguments; // what Create takes, as a user would write it; "" for nothing

    // Makes a volume. arguments is UTF-8 and belongs to the caller; "" asks for the defaults. STATUS_INVALID_PARAMETER
    // for arguments that are not understood. *ops is null after a failure. PASSIVE_LEVEL.
    NTSTATUS(NTAPI* Create)(const char* arguments, PluginOps** ops);
    // Returns once OnUnmounted has been called on the table.
    VOID(NTAPI* WaitUntilUnmounted)(PluginOps* ops);
    // Frees everything. No operation is running or will follow.
    VOID(NTAPI* Destroy)(PluginOps* ops);
} GvndPlugin;

#if defined(_WIN32) || !defined(__GNUC__)
#define GVND_PLUGIN_EXPORT
#else
#define GVND_PLUGIN_EXPORT __attribute__((visibility("default")))
#endif

// The record is constant, and stays as long as the code. The function itself has the convention of C where it runs, so
// that the version can be asked of any plugin.
typedef const GvndPlugin* (*GvndGetPluginFn)(VOID);
#define GVND_PLUGIN_ENTRY_NAME "GvndGetPlugin"
GVND_PLUGIN_EXPORT const GvndPlugin* GvndGetPlugin(VOID);

#ifdef __cplusplus
}
#endif
