// Read, Write, SetFileSize, FlushFile. The buffer may be a caller's own memory, bad or not paged in: the store then
// refuses it, and it is touched here with nothing owned, so that the fault goes where the driver expects it. Relies on
// no lock.
#include "operations.h"

#include "errors.h"
#include "volume.h"

namespace posixfs {
namespace {

// How often a page may go away again between its touch and the transfer.
constexpr unsigned kMaxFruitlessTouches = 64;

struct FileIo {
    OpenObjectRef Object;
    NTSTATUS Status;
};

FileIo FindFile(const Volume& volume, PluginFd fd, PluginAccessMask anyOf)
{
    OpenObjectRef object = volume.Find(fd);
    if (!object) return {nullptr, STATUS_INVALID_HANDLE};
    if (object->Kind != Kind::File) return {nullptr, STATUS_INVALID_DEVICE_REQUEST};
    if (!(object->Access & anyOf)) return {nullptr, STATUS_ACCESS_DENIED};
    return {std::move(object), STATUS_SUCCESS};
}

struct Span {
    LONGLONG Offset;
    ULONG Length;
    ULONG Done; // moved so far
};

// Repeats one call until all is moved or no more comes. STATUS_ACCESS_VIOLATION if the store cannot reach the
// buffer behind what is done.
template <typename Call>
NTSTATUS MoveAll(Span* span, Call&& call)
{
    while (span->Done < span->Length) {
        const ssize_t moved = call(span->Done, span->Length - span->Done, span->Offset + span->Done);
        if (moved < 0) return StatusOf(static_cast<int>(-moved));
        if (moved == 0) return STATUS_SUCCESS;
        span->Done += static_cast<ULONG>(moved);
    }
    return STATUS_SUCCESS;
}

NTSTATUS ReadSpan(const Volume& volume, PluginFd fd, char* buffer, Span* span)
{
    const FileIo file = FindFile(volume, fd, GVND_ACCESS_READ | GVND_ACCESS_EXECUTE);
    if (!file.Object) return file.Status;
    return MoveAll(span, [&](ULONG done, size_t length, off_t offset) {
        return file.Object->At->Read(buffer + done, length, offset);
    });
}

NTSTATUS WriteSpan(const Volume& volume, PluginFd fd, const char* buffer, Span* span)
{
    if (const NTSTATUS status = volume.CheckWritable(); !NT_SUCCESS(status)) return status;
    const FileIo file = FindFile(volume, fd, GVND_ACCESS_WRITE);
    if (!file.Object) return file.Status;
    return MoveAll(span, [&](ULONG done, size_t length, off_t offset) {
        return file.Object->At->Write(buffer + done, length, offset);
    });
}

// Adds nothing: what another thread writes into the byte meanwhile stays.
void TouchToWrite(char* byte) { __atomic_fetch_or(byte, 0, __ATOMIC_RELAXED); }
void TouchToRead(const char* byte) { (void)*static_cast<const volatile char*>(byte); }

// Transfers, and brings the buffer's pages in where the store did not find them. A bad buffer ends in the touch, as an
// exception that runs no destructors; therefore nothing in this frame owns anything.
template <typename Buffer>
NTSTATUS Transfer(const Volume& volume, PluginFd fd, Buffer buffer, Span* span,
                  NTSTATUS (*move)(const Volume&, PluginFd, Buffer, Span*), void (*touch)(Buffer))
{
    if (span->Offset < 0 || span->Offset > INT64_MAX - span->Length) return STATUS_INVALID_PARAMETER;
    for (unsigned fruitless = 0; fruitless < kMaxFruitlessTouches; ++fruitless) {
        const ULONG before = span->Done;
        const NTSTATUS status = Contained([&] { return move(volume, fd, buffer, span); });
        if (status != STATUS_ACCESS_VIOLATION) return status;
        touch(buffer + span->Done);
        if (span->Done > before) fruitless = 0;
    }
    return STATUS_ACCESS_VIOLATION;
}

NTSTATUS Allocate(Node& file, LONGLONG from, LONGLONG to)
{
    if (to <= from) return STATUS_SUCCESS;
    const int error = file.Allocate(from, to - from);
    return error == 0 || error == EOPNOTSUPP || error == ENOSYS ? STATUS_SUCCESS : StatusOf(error);
}

NTSTATUS Truncate(Node& file, LONGLONG size)
{
    const int error = file.Truncate(size);
    return error == 0 ? STATUS_SUCCESS : StatusOf(error);
}

NTSTATUS Resize(Node& file, LONGLONG size, LONGLONG allocation)
{
    NodeStat stat;
    if (const int error = file.Stat(&stat); error != 0) return StatusOf(error);
    // Truncating to the same size gives back what was allocated behind the end; only then is it worth a new write time.
    const auto oldSize = static_cast<LONGLONG>(stat.Size);
    const auto allocated = static_cast<LONGLONG>(stat.Blocks * 512);
    if (size != oldSize || allocation + LONGLONG{stat.BlockSize} <= allocated) {
        if (const NTSTATUS status = Truncate(file, size); !NT_SUCCESS(status)) return status;
    }
    // Only behind the end, so that a sparse file stays sparse; and after truncating, which would take it back.
    const NTSTATUS status = Allocate(file, size, allocation);
    if (!NT_SUCCESS(status) && size > oldSize) (void)Truncate(file, oldSize);
    return status;
}

NTSTATUS SetSizes(const Volume& volume, PluginFd fd, LONGLONG size, const LONGLONG* allocation)
{
    if (const NTSTATUS status = volume.CheckWritable(); !NT_SUCCESS(status)) return status;
    if (size < 0 || (allocation && *allocation < 0)) return STATUS_INVALID_PARAMETER;
    const FileIo file = FindFile(volume, fd, GVND_ACCESS_WRITE);
    return file.Object ? Resize(*file.Object->At, size, allocation ? *allocation : size) : file.Status;
}

NTSTATUS Flush(const Volume& volume, PluginFd fd)
{
    const OpenObjectRef object = volume.Find(fd);
    if (!object) return STATUS_INVALID_HANDLE;
    if (object->Kind == Kind::Link) return STATUS_SUCCESS;
    const int error = object->At->Sync();
    return error == 0 || error == EINVAL || error == EROFS ? STATUS_SUCCESS : StatusOf(error); // nothing to flush there
}

} // namespace

NTSTATUS NTAPI Read(void* context, PKEVENT, PluginFd fd, LONGLONG offset, ULONG* length, void* buffer)
{
    Span span = {offset, *length, 0};
    const NTSTATUS status =
        Transfer(Volume::From(context), fd, static_cast<char*>(buffer), &span, ReadSpan, TouchToWrite);
    *length = span.Done;
    // What was read before a failure is good, and the next read meets the failure.
    if (span.Done > 0) return STATUS_SUCCESS;
    if (NT_SUCCESS(status) && span.Length > 0) return STATUS_END_OF_FILE;
    return status;
}

NTSTATUS NTAPI Write(void* context, PKEVENT, PluginFd fd, LONGLONG offset, ULONG* length, const void* buffer)
{
    Span span = {offset, *length, 0};
    const NTSTATUS status =
        Transfer(Volume::From(context), fd, static_cast<const char*>(buffer), &span, WriteSpan, TouchToRead);
    *length = span.Done;
    return status;
}

NTSTATUS NTAPI SetFileSize(void* context, PKEVENT, PluginFd fd, LONGLONG* fileSize, const LONGLONG* allocationSize)
{
    return Contained([&] { return SetSizes(Volume::From(context), fd, *fileSize, allocationSize); });
}

NTSTATUS NTAPI FlushFile(void* context, PKEVENT, PluginFd fd)
{
    return Contained([&] { return Flush(Volume::From(context), fd); });
}

} // namespace posixfs
