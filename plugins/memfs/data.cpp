// Chunks: finding, making, copying and dropping them. Relies on Node.Lock, which the callers hold; leaves sizes and the
// accounting of space to them.

#include "data.h"

#include "guardedcopy.h"

namespace memfs {
namespace {

constexpr ULONG kChunkBytes = 64 * 1024;
constexpr ULONG kSmallestChunk = 512;

// A stretch of one chunk, or of nothing (Address null: zeros).
struct Run {
    UCHAR* Address;
    ULONG Length;
};

ULONG ChunkBytes(const FileData& data, ULONG index) { return index == 0 ? data.FirstBytes : kChunkBytes; }

UCHAR* ChunkAt(const FileData& data, ULONG index) { return index < data.Slots ? data.Chunks[index] : nullptr; }

Run RunAt(const FileData& data, ULONGLONG offset, ULONG limit)
{
    const ULONG index = static_cast<ULONG>(offset / kChunkBytes);
    const ULONG within = static_cast<ULONG>(offset % kChunkBytes);
    UCHAR* const chunk = ChunkAt(data, index);
    const ULONG committed = chunk ? ChunkBytes(data, index) : 0;
    Run run = {nullptr, kChunkBytes - within};
    if (within < committed) run = {chunk + within, committed - within};
    if (run.Length > limit) run.Length = limit;
    return run;
}

NTSTATUS EnsureSlots(FileData& data, ULONG wanted)
{
    if (wanted <= data.Slots) return STATUS_SUCCESS;
    // Doubling keeps appending linear; the slots are few for a file that is written once.
    const ULONG slots = wanted > 2 * data.Slots ? wanted : 2 * data.Slots;
    UCHAR** const chunks = Allocate<UCHAR*>(PagedPool, sizeof(UCHAR*) * static_cast<SIZE_T>(slots));
    if (!chunks) return STATUS_INSUFFICIENT_RESOURCES;
    if (data.Chunks) RtlCopyMemory(chunks, data.Chunks, sizeof(UCHAR*) * static_cast<SIZE_T>(data.Slots));
    Free(data.Chunks);
    data.Chunks = chunks;
    data.Slots = slots;
    return STATUS_SUCCESS;
}

ULONG FirstChunkSizeFor(ULONG bytes)
{
    ULONG size = kSmallestChunk;
    while (size < bytes) size *= 2;
    return size;
}

NTSTATUS EnsureFirstChunk(FileData& data, ULONG bytes)
{
    if (data.Chunks[0] && data.FirstBytes >= bytes) return STATUS_SUCCESS;
    const ULONG size = FirstChunkSizeFor(bytes);
    UCHAR* const chunk = Allocate<UCHAR>(PagedPool, size);
    if (!chunk) return STATUS_INSUFFICIENT_RESOURCES;
    if (data.Chunks[0]) RtlCopyMemory(chunk, data.Chunks[0], data.FirstBytes);
    Free(data.Chunks[0]);
    data.Chunks[0] = chunk;
    data.FirstBytes = size;
    return STATUS_SUCCESS;
}

NTSTATUS EnsureChunk(FileData& data, ULONG index, ULONG bytes)
{
    if (index == 0) return EnsureFirstChunk(data, bytes);
    if (!data.Chunks[index]) data.Chunks[index] = Allocate<UCHAR>(PagedPool, kChunkBytes);
    return data.Chunks[index] ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

void DropChunk(FileData& data, ULONG index)
{
    Free(data.Chunks[index]);
    data.Chunks[index] = nullptr;
    if (index == 0) data.FirstBytes = 0;
}

void DropTable(FileData& data)
{
    Free(data.Chunks);
    data.Chunks = nullptr;
    data.Slots = 0;
}

struct Copy {
    const FileData* Data;
    ULONGLONG Offset;
    ULONG Length;
    UCHAR* Buffer;
};

// Bodies of the guard.
void CopyOut(void* argument)
{
    Copy copy = *static_cast<Copy*>(argument);
    while (copy.Length != 0) {
        const Run run = RunAt(*copy.Data, copy.Offset, copy.Length);
        if (run.Address) {
            RtlCopyMemory(copy.Buffer, run.Address, run.Length);
        } else {
            RtlZeroMemory(copy.Buffer, run.Length);
        }
        copy.Buffer += run.Length;
        copy.Offset += run.Length;
        copy.Length -= run.Length;
    }
}

void CopyIn(void* argument)
{
    Copy copy = *static_cast<Copy*>(argument);
    while (copy.Length != 0) {
        const Run run = RunAt(*copy.Data, copy.Offset, copy.Length);
        RtlCopyMemory(run.Address, copy.Buffer, run.Length);
        copy.Buffer += run.Length;
        copy.Offset += run.Length;
        copy.Length -= run.Length;
    }
}

} // namespace

NTSTATUS DataCommit(FileData& data, ULONGLONG offset, ULONGLONG end)
{
    const ULONG last = static_cast<ULONG>((end - 1) / kChunkBytes);
    if (const NTSTATUS status = EnsureSlots(data, last + 1); !NT_SUCCESS(status)) return status;
    for (ULONG index = static_cast<ULONG>(offset / kChunkBytes); index <= last; ++index) {
        const ULONGLONG bytes = end - static_cast<ULONGLONG>(index) * kChunkBytes;
        const NTSTATUS status = EnsureChunk(data, index, bytes < kChunkBytes ? static_cast<ULONG>(bytes) : kChunkBytes);
        if (!NT_SUCCESS(status)) return status;
    }
    return STATUS_SUCCESS;
}

bool DataCopyOut(const FileData& data, ULONGLONG offset, ULONG length, void* buffer)
{
    Copy copy = {&data, offset, length, static_cast<UCHAR*>(buffer)};
    return RunGuarded(CopyOut, &copy);
}

bool DataCopyIn(FileData& data, ULONGLONG offset, ULONG length, const void* buffer)
{
    Copy copy = {&data, offset, length, static_cast<UCHAR*>(const_cast<void*>(buffer))};
    return RunGuarded(CopyIn, &copy);
}

void DataTrim(FileData& data, ULONGLONG end)
{
    if (end == 0) {
        for (ULONG index = 0; index < data.Slots; ++index) DropChunk(data, index);
        DropTable(data);
        return;
    }
    const ULONGLONG kept = (end + kChunkBytes - 1) / kChunkBytes;
    for (ULONGLONG index = kept; index < data.Slots; ++index) DropChunk(data, static_cast<ULONG>(index));
    const Run tail = RunAt(data, end, kChunkBytes);
    if (end % kChunkBytes != 0 && tail.Address) RtlZeroMemory(tail.Address, tail.Length);
}

} // namespace memfs
