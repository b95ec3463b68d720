// The contents of one file: a table of 64 KiB chunks, made when they are first written; what has no chunk reads as
// zero. The first chunk starts small and grows, so that a small file costs little. All of it is guarded by Node.Lock:
// shared to copy out, exclusive for the rest.
//
// Committed bytes beyond the end of the file are always zero. So growing a file is free, and truncating one has to
// clean up.
#pragma once

#include "pool.h"

namespace memfs {

struct FileData {
    UCHAR** Chunks;
    ULONG Slots;      // entries of Chunks
    ULONG FirstBytes; // size of Chunks[0]; all others are whole
};

// Makes the chunks under [offset, end). A failure leaves the contents as they were, perhaps with more zeros committed.
[[nodiscard]] NTSTATUS DataCommit(FileData& data, ULONGLONG offset, ULONGLONG end);

// Copies between the contents and a buffer that may turn out bad: false then, with part of the copy done.
[[nodiscard]] bool DataCopyOut(const FileData& data, ULONGLONG offset, ULONG length, void* buffer);
// The range must have been committed.
[[nodiscard]] bool DataCopyIn(FileData& data, ULONGLONG offset, ULONG length, const void* buffer);

// Gives up everything from end on. Cannot fail.
void DataTrim(FileData& data, ULONGLONG end);

} // namespace memfs
