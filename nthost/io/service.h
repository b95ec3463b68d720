// Nt and Zw forms of a service: one routine that is told for which mode it acts.
#pragma once

#include <ntifs.h>

#define NTHOST_SERVICE_PAIR(name, routine, parameters, ...)                                  \
    NTSTATUS NTAPI Nt##name parameters { return routine(ExGetPreviousMode(), __VA_ARGS__); } \
    NTSTATUS NTAPI Zw##name parameters { return routine(KernelMode, __VA_ARGS__); }
