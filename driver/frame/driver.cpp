// The driver's globals.

#include "frame/driver.h"

PIO_REPLACE_FILE_OBJECT_NAME GvIoReplaceFileObjectName;
PDRIVER_OBJECT GvDriverObject;
ULONG GvVcbThreadPoolSize;
