// Reading and writing: access, position and alignment rules. How the data travels is the device's choice. The file
// object's own position is taken under its lock, which the request holds from Build on; the file system moves it.
#include "io/fast_io.h"
#include "io/file.h"
#include "io/request.h"
#include "ob/service.h"
#include "ob/capture.h"

namespace nthost::io {

namespace {

enum class Direction { Read, Write };

struct Transfer {
    KPROCESSOR_MODE Mode;
    Direction Way;
    void* Buffer;
    ULONG Length;
    PLARGE_INTEGER ByteOffset; // the caller's, or null
    PULONG Key;                // the caller's, or null
};

struct Position {
    enum class From { Offset, Current, End };
    From Base = From::Offset;
    LARGE_INTEGER Offset{}; // of a write to the end: the mark that the driver gets
};

Position::From BaseOf(LARGE_INTEGER offset, Direction way)
{
    if (offset.HighPart != -1) return Position::From::Offset;
    if (offset.LowPart == FILE_USE_FILE_POINTER_POSITION) return Position::From::Current;
    return way == Direction::Write && offset.LowPart == FILE_WRITE_TO_END_OF_FILE ? Position::From::End
                                                                                  : Position::From::Offset;
}

bool OnlyAppends(const Request& request)
{
    return (request.Granted() & (FILE_WRITE_DATA | FILE_APPEND_DATA)) == FILE_APPEND_DATA;
}

[[nodiscard]] NTSTATUS CheckBase(const Position& position, PFILE_OBJECT file)
{
    switch (position.Base) {
    case Position::From::End: return STATUS_SUCCESS;
    case Position::From::Current:
        return HasFlag(file, FO_SYNCHRONOUS_IO) ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER; // others have none
    default: return position.Offset.QuadPart >= 0 ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
    }
}

[[nodiscard]] NTSTATUS CapturePosition(const Transfer& transfer, const Request& request, Position* position)
{
    position->Base = Position::From::Current;
    if (transfer.ByteOffset) {
        const NTSTATUS status = ob::ReadUser(transfer.ByteOffset, &position->Offset, transfer.Mode);
        if (!NT_SUCCESS(status)) return status;
        position->Base = BaseOf(position->Offset, transfer.Way);
    }
    if (transfer.Way == Direction::Write && OnlyAppends(request)) { // wherever the caller wanted to write
        position->Base = Position::From::End;
        position->Offset.QuadPart = -1;
    }
    return CheckBase(*position, request.File());
}

// A file opened without intermediate buffering is read and written by whole sectors, from memory that the device takes.
bool IsAligned(const Transfer& transfer, const Position& position, const Request& request)
{
    PFILE_OBJECT const file = request.File();
    if (!HasFlag(file, FO_NO_INTERMEDIATE_BUFFERING)) return true;
    if (reinterpret_cast<ULONG_PTR>(transfer.Buffer) & request.Device()->AlignmentRequirement) return false;
    const ULONG sector = file->DeviceObject->SectorSize;
    if (sector <= 1) return true;
    const bool offsetFits = position.Base != Position::From::Offset || position.Offset.QuadPart % sector == 0;
    return offsetFits && transfer.Length % sector == 0;
}

// Whoever may append may write.
[[nodiscard]] NTSTATUS OpenFor(const Transfer& transfer, const ServiceCaller& caller, HANDLE file, Request* request)
{
    if (transfer.Way == Direction::Read) return request->Open(caller, file, FILE_READ_DATA, Service::Asynchronous);
    const NTSTATUS status = request->Open(caller, file, 0, Service::Asynchronous);
    return NT_SUCCESS(status) ? request->RequireAny(FILE_WRITE_DATA | FILE_APPEND_DATA) : status;
}

[[nodiscard]] NTSTATUS ProbeBuffer(const Transfer& transfer)
{
    return transfer.Way == Direction::Read ? ob::ProbeUserForWrite(transfer.Buffer, transfer.Length, 1, transfer.Mode)
                                           : ob::ProbeUserForRead(transfer.Buffer, transfer.Length, 1, transfer.Mode);
}

[[nodiscard]] NTSTATUS Attach(Request& request, const Transfer& transfer)
{
    return transfer.Way == Direction::Read ? request.Output(transfer.Buffer, transfer.Length)
                                           : request.Input(transfer.Buffer, transfer.Length);
}

LARGE_INTEGER OffsetOf(const Position& position, PFILE_OBJECT file)
{
    return position.Base == Position::From::Current ? file->CurrentByteOffset : position.Offset;
}

template <typename Parameters>
void Fill(Parameters& parameters, const Transfer& transfer, ULONG key, LARGE_INTEGER offset)
{
    parameters.Length = transfer.Length;
    parameters.Key = key;
    parameters.ByteOffset = offset;
}

void FillRequest(Request& request, const Transfer& transfer, ULONG key, const Position& position)
{
    PFILE_OBJECT const file = request.File();
    // Under the file object's lock: two requests do not get the same bytes.
    const LARGE_INTEGER offset = OffsetOf(position, file);
    PIO_STACK_LOCATION const location = request.Location();
    request.Irp()->Flags |= IRP_DEFER_IO_COMPLETION;
    if (HasFlag(file, FO_NO_INTERMEDIATE_BUFFERING)) request.Irp()->Flags |= IRP_NOCACHE;
    if (transfer.Way == Direction::Read) {
        request.Irp()->Flags |= IRP_READ_OPERATION;
        Fill(location->Parameters.Read, transfer, key, offset);
    } else {
        request.Irp()->Flags |= IRP_WRITE_OPERATION;
        if (HasFlag(file, FO_WRITE_THROUGH)) location->Flags = SL_WRITE_THROUGH;
        Fill(location->Parameters.Write, transfer, key, offset);
    }
}

// A read's and a write's routine have one type.
constexpr PFAST_IO_READ _FAST_IO_DISPATCH::*FastSlots[] = {&_FAST_IO_DISPATCH::FastIoRead,
                                                           &_FAST_IO_DISPATCH::FastIoWrite};

// Outcomes that count; any other is the packet's to find out again.
bool IsFinal(NTSTATUS status, Direction way)
{
    if (status == STATUS_SUCCESS) return true;
    return way == Direction::Read && (status == STATUS_BUFFER_OVERFLOW || status == STATUS_END_OF_FILE);
}

// From and to a cache, which the file system says with PrivateCacheMap that there is; and only for synchronous I/O. The
// driver gets the caller's address, and moves the position.
bool MoveFast(Request& request, const Transfer& transfer, ULONG key, const Position& position, NTSTATUS* status)
{
    PFILE_OBJECT const file = request.File();
    if (!request.MayBeFast() || !HasFlag(file, FO_SYNCHRONOUS_IO) || !file->PrivateCacheMap) return false;
    request.LockFile();
    LARGE_INTEGER offset = OffsetOf(position, file);
    IO_STATUS_BLOCK result{};
    const bool reads = transfer.Way == Direction::Read;
    const bool done = DoneFast(request.Device(), reads ? "FastIoRead" : "FastIoWrite", FastSlots[reads ? 0 : 1],
                               &result, file, &offset, transfer.Length, BOOLEAN{TRUE}, key, transfer.Buffer);
    if (!done || !IsFinal(result.Status, transfer.Way)) return false;
    *status = request.EndFast(result);
    return true;
}

[[nodiscard]] NTSTATUS IssueTransfer(Request& request, const Transfer& transfer, ULONG key, const Position& position)
{
    NTSTATUS status = request.Build(transfer.Way == Direction::Read ? IRP_MJ_READ : IRP_MJ_WRITE);
    if (!NT_SUCCESS(status)) return status;
    FillRequest(request, transfer, key, position);
    status = Attach(request, transfer);
    return NT_SUCCESS(status) ? request.Issue() : status;
}

NTSTATUS Move(const Transfer& transfer, const ServiceCaller& caller, HANDLE file)
{
    Request request;
    NTSTATUS status = OpenFor(transfer, caller, file, &request);
    if (!NT_SUCCESS(status)) return status;
    status = ProbeBuffer(transfer);
    if (!NT_SUCCESS(status)) return status;
    ULONG key = 0;
    if (transfer.Key && !NT_SUCCESS(status = ob::ReadUser(transfer.Key, &key, transfer.Mode))) return status;
    Position position;
    status = CapturePosition(transfer, request, &position);
    if (!NT_SUCCESS(status)) return status;
    if (!IsAligned(transfer, position, request)) return STATUS_INVALID_PARAMETER;
    if (MoveFast(request, transfer, key, position, &status)) return status;
    return IssueTransfer(request, transfer, key, position);
}

NTSTATUS Read(KPROCESSOR_MODE mode, HANDLE file, HANDLE event, PIO_APC_ROUTINE apcRoutine, PVOID apcContext,
              PIO_STATUS_BLOCK statusBlock, PVOID buffer, ULONG length, PLARGE_INTEGER byteOffset, PULONG key)
{
    return Move({mode, Direction::Read, buffer, length, byteOffset, key},
                {mode, statusBlock, event, apcRoutine, apcContext}, file);
}

NTSTATUS Write(KPROCESSOR_MODE mode, HANDLE file, HANDLE event, PIO_APC_ROUTINE apcRoutine, PVOID apcContext,
               PIO_STATUS_BLOCK statusBlock, PVOID buffer, ULONG length, PLARGE_INTEGER byteOffset, PULONG key)
{
    return Move({mode, Direction::Write, buffer, length, byteOffset, key},
                {mode, statusBlock, event, apcRoutine, apcContext}, file);
}

} // namespace

} // namespace nthost::io

NTHOST_SERVICE_PAIR(ReadFile, nthost::io::Read,
                    (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                     PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset, PULONG Key),
                    FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, Buffer, Length, ByteOffset, Key)
NTHOST_SERVICE_PAIR(WriteFile, nthost::io::Write,
                    (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                     PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset, PULONG Key),
                    FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, Buffer, Length, ByteOffset, Key)
