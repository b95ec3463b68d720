// Lists of extended attributes as services take them from their callers.
#pragma once

#include <memory>

#include <ntifs.h>

namespace nthost::io {

struct FreeBuffer {
    void operator()(void* buffer) const;
};
using CapturedList = std::unique_ptr<void, FreeBuffer>; // a system buffer

// The caller's bytes; nothing for a null address or an empty list.
[[nodiscard]] NTSTATUS CaptureList(const void* list, ULONG length, KPROCESSOR_MODE mode, CapturedList* captured);

// As IoCheckEaBufferValidity, for the names that a query asks for.
[[nodiscard]] NTSTATUS CheckEaNames(const void* list, ULONG length, ULONG* errorOffset);

// An inconsistent list is told with the offset of its first bad record; anything else only by its status.
[[nodiscard]] NTSTATUS TellInconsistent(NTSTATUS status, ULONG errorOffset, PIO_STATUS_BLOCK block,
                                        KPROCESSOR_MODE mode);

} // namespace nthost::io
