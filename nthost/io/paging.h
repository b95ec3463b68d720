// Requests of the memory manager: they carry pages instead of a caller's buffer, no byte-range lock stops them and no
// file position moves. All are waited for. They run in whatever context the page was touched or flushed in, with the
// thread's top-level request as it is.
#pragma once

#include <ntifs.h>

namespace nthost::io {

struct PagingTransfer {
    PFILE_OBJECT File;
    UCHAR Major; // IRP_MJ_READ or IRP_MJ_WRITE
    PMDL Mdl;    // locked; the request unlocks and frees it, also when it cannot be sent
    LONGLONG Offset;
    bool Synchronous; // IRP_SYNCHRONOUS_PAGING_IO: the file system must not leave it to another thread
};
[[nodiscard]] NTSTATUS SendPaging(const PagingTransfer& transfer, IO_STATUS_BLOCK* result);

// The file's size as the file system tells it. STATUS_FILE_IS_A_DIRECTORY.
[[nodiscard]] NTSTATUS QueryFileSize(PFILE_OBJECT file, LONGLONG* size);
[[nodiscard]] NTSTATUS SetFileSize(PFILE_OBJECT file, LONGLONG size);

} // namespace nthost::io
