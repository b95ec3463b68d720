// The driver's globals: written in DriverEntry only, before any request can arrive.
#pragma once

#include "frame/nt.h"

extern PIO_REPLACE_FILE_OBJECT_NAME GvIoReplaceFileObjectName;
extern PDRIVER_OBJECT GvDriverObject;
extern ULONG GvVcbThreadPoolSize; // worker threads of each volume, 1 to 511
