// Nt and Zw forms of a service: one routine that is told for which mode it acts. On the way back from an Nt form the
// thread runs the APCs that came for it.
#pragma once

#include <ntifs.h>

#include "ke/apc.h"

#define NTHOST_SERVICE_PAIR(name, routine, parameters, ...)                                                            \
    NTSTATUS NTAPI Nt##name parameters { return nthost::ke::LeaveService(routine(ExGetPreviousMode(), __VA_ARGS__)); } \
    NTSTATUS NTAPI Zw##name parameters { return routine(KernelMode, __VA_ARGS__); }
