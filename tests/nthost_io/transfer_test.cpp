// Reads and writes: who may, where they begin, what the driver sees, and how the bytes travel.
#include "probe.h"

#include <cstring>
#include <optional>

#include <nthost/user_memory.h>

using namespace probe;

namespace {

using Transfer = IoTest;

constexpr ULONG Sync = FILE_SYNCHRONOUS_IO_NONALERT, Async = 0;
constexpr LONGLONG Current = -2, End = -1;

using Service = decltype(&NtWriteFile);

NTSTATUS Move(Service service, HANDLE file, void* buffer, ULONG length, std::optional<LONGLONG> offset,
              PULONG key = nullptr)
{
    IO_STATUS_BLOCK block{};
    LARGE_INTEGER byteOffset;
    if (offset) byteOffset.QuadPart = *offset;
    return service(file, nullptr, nullptr, nullptr, &block, buffer, length, offset ? &byteOffset : nullptr, key);
}

NTSTATUS Write(HANDLE file, ULONG length, std::optional<LONGLONG> offset, PULONG key = nullptr)
{
    static char bytes[4096];
    return Move(NtWriteFile, file, bytes, length, offset, key);
}

TEST_F(Transfer, WriteBeginsWhereHandleAndOffsetSay)
{
    constexpr ACCESS_MASK Append = FILE_APPEND_DATA | SYNCHRONIZE, Data = FILE_WRITE_DATA | SYNCHRONIZE;
    constexpr ACCESS_MASK ReadOnly = FILE_READ_DATA | SYNCHRONIZE;
    const struct {
        ACCESS_MASK Access;
        ULONG Options;
        std::optional<LONGLONG> Offset;
        NTSTATUS Status;
        LONGLONG Seen; // with the file object's position at 700
    } rows[] = {
        {Data, Sync, {}, STATUS_SUCCESS, 700},
        {Data, Sync, Current, STATUS_SUCCESS, 700},
        {Data, Sync, 5, STATUS_SUCCESS, 5},
        {Data, Sync, End, STATUS_SUCCESS, End},
        {Data, Sync, -3, STATUS_INVALID_PARAMETER, 0},
        {Data, Async, {}, STATUS_INVALID_PARAMETER, 0}, // it has no position
        {Data, Async, Current, STATUS_INVALID_PARAMETER, 0},
        {Data, Async, 5, STATUS_SUCCESS, 5},
        {Data, Async, End, STATUS_SUCCESS, End},
        {Append, Sync, {}, STATUS_SUCCESS, End}, // an append-only handle writes nowhere else
        {Append, Sync, 5, STATUS_SUCCESS, End},
        {Append, Async, 5, STATUS_SUCCESS, End},
        {Append | Data, Sync, 5, STATUS_SUCCESS, 5},
        {ReadOnly, Sync, 5, STATUS_ACCESS_DENIED, 0},
        {Data, Sync | FILE_NO_INTERMEDIATE_BUFFERING, 512, STATUS_SUCCESS, 512},
        {Data, Sync | FILE_NO_INTERMEDIATE_BUFFERING, 513, STATUS_INVALID_PARAMETER, 0},
        {Data, Sync | FILE_NO_INTERMEDIATE_BUFFERING, End, STATUS_SUCCESS, End},
    };
    device->SectorSize = 512;
    for (const auto& row : rows) {
        const Opened opened = Open({.Access = row.Access, .Options = row.Options});
        FileOf(opened.Handle)->CurrentByteOffset.QuadPart = 700;
        LONGLONG seen = 0;
        Driver().Majors[IRP_MJ_WRITE] = [&](PDEVICE_OBJECT, PIRP irp) {
            seen = IoGetCurrentIrpStackLocation(irp)->Parameters.Write.ByteOffset.QuadPart;
            return Complete(irp, STATUS_SUCCESS, 512);
        };
        EXPECT_EQ(Write(opened.Handle, 512, row.Offset), row.Status) << (&row - rows);
        EXPECT_EQ(seen, row.Seen) << (&row - rows);
        NtClose(opened.Handle);
    }
    Driver().Majors[IRP_MJ_WRITE] = nullptr;
    const Opened unbuffered = Open({.Options = Sync | FILE_NO_INTERMEDIATE_BUFFERING});
    EXPECT_EQ(Write(unbuffered.Handle, 100, 0), STATUS_INVALID_PARAMETER); // no whole sector
    device->AlignmentRequirement = 3;
    alignas(4) char bytes[516];
    EXPECT_EQ(Move(NtWriteFile, unbuffered.Handle, bytes + 1, 512, 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Move(NtReadFile, unbuffered.Handle, bytes + 1, 512, 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Move(NtWriteFile, unbuffered.Handle, bytes, 512, 0), STATUS_SUCCESS);
    EXPECT_EQ(Move(NtReadFile, unbuffered.Handle, bytes, 512, End), STATUS_INVALID_PARAMETER); // a mark of writes only
    NtClose(unbuffered.Handle);
}

TEST_F(Transfer, WriteShowsTheDriverItsCaller)
{
    const Opened plain = Open();
    const Opened through =
        Open({.Options = Sync | FILE_WRITE_THROUGH | FILE_NO_INTERMEDIATE_BUFFERING}); // sector size is the device's
    ULONG key = 33;
    const struct {
        HANDLE File;
        PULONG Key;
        ULONG IrpFlags;
        UCHAR LocationFlags;
    } rows[] = {
        {plain.Handle, nullptr, IRP_WRITE_OPERATION | IRP_DEFER_IO_COMPLETION, 0},
        {through.Handle, &key, IRP_WRITE_OPERATION | IRP_DEFER_IO_COMPLETION | IRP_NOCACHE, SL_WRITE_THROUGH},
    };
    device->SectorSize = 1;
    for (const auto& row : rows) {
        Driver().Majors[IRP_MJ_WRITE] = [&](PDEVICE_OBJECT, PIRP irp) {
            const IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(irp);
            EXPECT_EQ(irp->Flags, row.IrpFlags);
            EXPECT_EQ(location.Flags, row.LocationFlags);
            EXPECT_EQ(location.Parameters.Write.Length, 3u);
            EXPECT_EQ(location.Parameters.Write.Key, row.Key ? 33u : 0u);
            EXPECT_EQ(irp->RequestorMode, UserMode);
            return Complete(irp, STATUS_SUCCESS, 3);
        };
        EXPECT_EQ(Write(row.File, 3, 0, row.Key), STATUS_SUCCESS);
        NtClose(row.File);
    }
    EXPECT_EQ(Seen(IRP_MJ_WRITE), 2u);
}

TEST_F(Transfer, WrittenBytesTravelAsTheDeviceAsks)
{
    nthost::UserMemory memory(4096);
    char* const bytes = memory.Address();
    memcpy(bytes, "written", 7);
    for (const ULONG method : {ULONG{0}, ULONG{DO_BUFFERED_IO}, ULONG{DO_DIRECT_IO}}) {
        device->Flags = (device->Flags & ~(DO_BUFFERED_IO | DO_DIRECT_IO)) | method;
        Driver().Majors[IRP_MJ_WRITE] = [&](PDEVICE_OBJECT, PIRP irp) {
            const void* data = irp->UserBuffer;
            if (method == DO_BUFFERED_IO) data = irp->AssociatedIrp.SystemBuffer;
            if (method == DO_DIRECT_IO)
                data = MmMapLockedPagesSpecifyCache(irp->MdlAddress, KernelMode, MmCached, nullptr, FALSE,
                                                    NormalPagePriority);
            EXPECT_EQ(data == bytes, method == 0);
            EXPECT_EQ(memcmp(data, "written", 7), 0);
            return Complete(irp, STATUS_SUCCESS, 7);
        };
        const Opened opened = Open();
        EXPECT_EQ(Move(NtWriteFile, opened.Handle, bytes, 7, 0), STATUS_SUCCESS) << method;
        // What the caller cannot read never gets as far as the driver, unless the driver gets the address as it is.
        memory.Unmap();
        Driver().Majors[IRP_MJ_WRITE] = nullptr;
        EXPECT_EQ(Move(NtWriteFile, opened.Handle, nullptr, 0, 0), STATUS_SUCCESS) << method;
        Driver().Seen[IRP_MJ_WRITE] = 0;
        EXPECT_EQ(Move(NtWriteFile, opened.Handle, bytes, 7, 0), method ? STATUS_ACCESS_VIOLATION : STATUS_SUCCESS);
        EXPECT_EQ(Seen(IRP_MJ_WRITE), method ? 0u : 1u) << method;
        memory.Map();
        NtClose(opened.Handle);
    }
}

TEST_F(Transfer, AsynchronousWriteIsStillOutWhenItsServiceReturns)
{
    const Opened opened = Open({.Options = Async});
    Parked parked;
    Driver().Majors[IRP_MJ_WRITE] = parked.Routine();
    IO_STATUS_BLOCK block{};
    LARGE_INTEGER offset{};
    char byte = 'x';
    EXPECT_EQ(NtWriteFile(opened.Handle, nullptr, nullptr, nullptr, &block, &byte, 1, &offset, nullptr),
              STATUS_PENDING);
    Complete(parked.Await(), STATUS_SUCCESS, 1);
    EXPECT_EQ(NtWaitForSingleObject(opened.Handle, FALSE, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(block.Information, 1u);
    NtClose(opened.Handle);
}

} // namespace
