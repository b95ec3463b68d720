// What a program on the mount is told for an NT status: one table, from status to errno.
#pragma once

#include <ntifs.h>

namespace tool::mount {

// 0 for a success. EIO for a status that the table does not know.
int ErrorOf(NTSTATUS status);

} // namespace tool::mount
