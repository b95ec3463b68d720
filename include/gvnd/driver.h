// The driver as a library in a Linux process: its entry, to be given to nthost::LoadDriver. The service key may hold
// "NumVcbWorkers" (REG_DWORD, 1 to 511, default 16): the worker threads of each mounted volume.
#pragma once

#include <gvnd/plugin.h>

#ifdef __cplusplus
extern "C"
#endif
    NTSTATUS NTAPI
    GvndDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);
