// The callbacks through which the memory manager takes a file's lock before it acts. They are the only slots of the
// fast-I/O table that are filled, so reads, writes, queries and locks always come as IRPs.
#pragma once

#include "frame/nt.h"

void GvFillFastIoCallbacks(PFAST_IO_DISPATCH table);
