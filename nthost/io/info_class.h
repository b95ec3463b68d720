// What a service demands for one class of file or volume information, before a driver sees anything of it.
#pragma once

#include <span>

#include <ntifs.h>

namespace nthost::io {

struct InfoClass {
    ULONG Class;
    ULONG Least;     // bytes of the buffer
    ULONG Alignment; // of a user-mode caller's buffer
    ACCESS_MASK Access;
};

// STATUS_INVALID_INFO_CLASS for a class without a row, STATUS_INFO_LENGTH_MISMATCH for a buffer that is too short.
[[nodiscard]] inline NTSTATUS CheckClass(std::span<const InfoClass> rows, ULONG infoClass, ULONG length,
                                         const InfoClass** found)
{
    for (const InfoClass& row : rows) {
        if (row.Class != infoClass) continue;
        *found = &row;
        return length < row.Least ? STATUS_INFO_LENGTH_MISMATCH : STATUS_SUCCESS;
    }
    return STATUS_INVALID_INFO_CLASS;
}

} // namespace nthost::io
