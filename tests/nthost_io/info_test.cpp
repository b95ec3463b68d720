// File information: what each class demands, what the I/O manager answers itself, what the driver sees.
#include "probe.h"

#include <cstring>

using namespace probe;

namespace {

using Information = IoTest;

constexpr ACCESS_MASK NoRights = SYNCHRONIZE;

struct ClassRow {
    FILE_INFORMATION_CLASS Class;
    ULONG Least;
    ULONG Alignment;
    ACCESS_MASK Access;
};

using QueryService = decltype(&NtQueryInformationFile);

// A handle without any right but to wait is refused exactly where a right is asked for; the least length gets through.
void ExpectDemands(QueryService service, const ClassRow& row, IO_STATUS_BLOCK* block)
{
    SCOPED_TRACE(row.Class);
    alignas(8) char buffer[256] = {};
    const Opened entitled = Open({.Access = row.Access | SYNCHRONIZE}), bare = Open({.Access = NoRights});
    EXPECT_EQ(service(entitled.Handle, block, buffer, row.Least - 1, row.Class), STATUS_INFO_LENGTH_MISMATCH);
    if (row.Alignment > 1) {
        EXPECT_EQ(service(entitled.Handle, block, buffer + row.Alignment / 2, row.Least, row.Class),
                  STATUS_DATATYPE_MISALIGNMENT);
    }
    EXPECT_EQ(service(bare.Handle, block, buffer, row.Least, row.Class),
              row.Access ? STATUS_ACCESS_DENIED : STATUS_SUCCESS);
    EXPECT_EQ(service(entitled.Handle, block, buffer, row.Least, row.Class), STATUS_SUCCESS);
    EXPECT_EQ(service(entitled.Handle, block, nullptr, row.Least, row.Class), STATUS_ACCESS_VIOLATION);
    NtClose(entitled.Handle);
    NtClose(bare.Handle);
}

TEST_F(Information, QueriesDemandLengthAlignmentAndAccessByClass)
{
    constexpr ClassRow rows[] = {
        {FileBasicInformation, 40, 8, FILE_READ_ATTRIBUTES},
        {FileStandardInformation, 24, 8, 0},
        {FileInternalInformation, 8, 8, 0},
        {FileEaInformation, 4, 4, 0},
        {FileAccessInformation, 4, 4, 0},
        {FileNameInformation, 8, 4, 0},
        {FilePositionInformation, 8, 8, 0},
        {FileModeInformation, 4, 4, 0},
        {FileAlignmentInformation, 4, 4, 0},
        {FileAllInformation, 104, 8, FILE_READ_ATTRIBUTES},
        {FileStreamInformation, 32, 8, 0},
        {FileNetworkOpenInformation, 56, 8, FILE_READ_ATTRIBUTES},
        {FileAttributeTagInformation, 8, 4, FILE_READ_ATTRIBUTES},
    };
    IO_STATUS_BLOCK block;
    for (const ClassRow& row : rows) ExpectDemands(NtQueryInformationFile, row, &block);
    const Opened opened = Open();
    char buffer[256];
    for (const int unknown : {0, 1, 10, 13, 15, 19, 20, 40, 1000})
        EXPECT_EQ(NtQueryInformationFile(opened.Handle, &block, buffer, sizeof buffer,
                                         static_cast<FILE_INFORMATION_CLASS>(unknown)),
                  STATUS_INVALID_INFO_CLASS)
            << unknown;
    NtClose(opened.Handle);
}

TEST_F(Information, ChangesDemandLengthAlignmentAndAccessByClass)
{
    constexpr ClassRow rows[] = {
        {FileBasicInformation, 40, 8, FILE_WRITE_ATTRIBUTES},
        {FileRenameInformation, 24, 8, DELETE},
        {FileLinkInformation, 24, 8, 0},
        {FileDispositionInformation, 1, 1, DELETE},
        {FilePositionInformation, 8, 8, 0},
        {FileAllocationInformation, 8, 8, FILE_WRITE_DATA},
        {FileEndOfFileInformation, 8, 8, FILE_WRITE_DATA},
        {FileValidDataLengthInformation, 8, 8, FILE_WRITE_DATA},
    };
    IO_STATUS_BLOCK block;
    for (const ClassRow& row : rows) ExpectDemands(NtSetInformationFile, row, &block);
    const Opened opened = Open();
    char buffer[256];
    for (const int unknown : {0, 5, 8, 18, 34, 41})
        EXPECT_EQ(NtSetInformationFile(opened.Handle, &block, buffer, sizeof buffer,
                                       static_cast<FILE_INFORMATION_CLASS>(unknown)),
                  STATUS_INVALID_INFO_CLASS)
            << unknown;
    NtClose(opened.Handle);
}

template <typename T>
NTSTATUS Query(HANDLE file, FILE_INFORMATION_CLASS infoClass, T* info, IO_STATUS_BLOCK* block)
{
    return NtQueryInformationFile(file, block, info, sizeof *info, infoClass);
}

TEST_F(Information, WhatTheFileObjectKnowsDoesNotReachTheDriver)
{
    const Opened opened =
        Open({.Access = FILE_READ_DATA | SYNCHRONIZE, .Options = FILE_SYNCHRONOUS_IO_ALERT | FILE_WRITE_THROUGH});
    device->AlignmentRequirement = 7;
    FileOf(opened.Handle)->CurrentByteOffset.QuadPart = 99;
    IO_STATUS_BLOCK block;
    FILE_ACCESS_INFORMATION access;
    EXPECT_EQ(Query(opened.Handle, FileAccessInformation, &access, &block), STATUS_SUCCESS);
    EXPECT_EQ(access.AccessFlags, FILE_READ_DATA | SYNCHRONIZE);
    FILE_MODE_INFORMATION mode;
    EXPECT_EQ(Query(opened.Handle, FileModeInformation, &mode, &block), STATUS_SUCCESS);
    EXPECT_EQ(mode.Mode, FILE_SYNCHRONOUS_IO_ALERT | FILE_WRITE_THROUGH);
    FILE_ALIGNMENT_INFORMATION alignment;
    EXPECT_EQ(Query(opened.Handle, FileAlignmentInformation, &alignment, &block), STATUS_SUCCESS);
    EXPECT_EQ(alignment.AlignmentRequirement, 7u);
    FILE_POSITION_INFORMATION position;
    EXPECT_EQ(Query(opened.Handle, FilePositionInformation, &position, &block), STATUS_SUCCESS);
    EXPECT_EQ(position.CurrentByteOffset.QuadPart, 99);
    EXPECT_EQ(block.Information, 8u);
    EXPECT_EQ(Seen(IRP_MJ_QUERY_INFORMATION), 0u);
    NtClose(opened.Handle);

    // An asynchronous one has no position: whether the file system has an idea of one is its business.
    const Opened asynchronous = Open({.Options = 0});
    Driver().Majors[IRP_MJ_QUERY_INFORMATION] = [](PDEVICE_OBJECT, PIRP irp) {
        EXPECT_EQ(irp->Flags & IRP_SYNCHRONOUS_API, static_cast<ULONG>(IRP_SYNCHRONOUS_API));
        *static_cast<LONGLONG*>(irp->AssociatedIrp.SystemBuffer) = 1234;
        return Complete(irp, STATUS_SUCCESS, 8);
    };
    EXPECT_EQ(Query(asynchronous.Handle, FilePositionInformation, &position, &block), STATUS_SUCCESS);
    EXPECT_EQ(position.CurrentByteOffset.QuadPart, 1234);
    NtClose(asynchronous.Handle);
}

TEST_F(Information, AllIsTheDriversAndThenTheIoManagers)
{
    const struct {
        NTSTATUS Status;
        ULONG_PTR Information;
        ULONG Access; // of a buffer full of 0x11
    } rows[] = {
        {STATUS_SUCCESS, 104, FILE_READ_ATTRIBUTES | SYNCHRONIZE},
        {STATUS_BUFFER_OVERFLOW, 96, FILE_READ_ATTRIBUTES | SYNCHRONIZE},
        {STATUS_SUCCESS, 40, 0x11111111}, // the driver did not get that far
        {STATUS_INVALID_PARAMETER, 104, 0x11111111},
    };
    const Opened opened = Open({.Access = FILE_READ_ATTRIBUTES | SYNCHRONIZE});
    device->AlignmentRequirement = 1;
    for (const auto& row : rows) {
        Driver().Majors[IRP_MJ_QUERY_INFORMATION] = [&](PDEVICE_OBJECT, PIRP irp) {
            const auto& query = IoGetCurrentIrpStackLocation(irp)->Parameters.QueryFile;
            EXPECT_EQ(query.Length, 104u);
            EXPECT_EQ(query.FileInformationClass, FileAllInformation);
            memset(irp->AssociatedIrp.SystemBuffer, 0, query.Length); // those fields too
            return Complete(irp, row.Status, row.Information);
        };
        FILE_ALL_INFORMATION all;
        memset(&all, 0x11, sizeof all);
        IO_STATUS_BLOCK block;
        EXPECT_EQ(Query(opened.Handle, FileAllInformation, &all, &block), row.Status);
        EXPECT_EQ(all.AccessInformation.AccessFlags, row.Access) << (&row - rows);
        const bool completed = row.Access != 0x11111111;
        EXPECT_EQ(all.ModeInformation.Mode, completed ? FILE_SYNCHRONOUS_IO_NONALERT : 0x11111111u);
        EXPECT_EQ(all.AlignmentInformation.AlignmentRequirement, completed ? 1u : 0x11111111u);
    }
    NtClose(opened.Handle);
}

TEST_F(Information, PositionOfASynchronousFileObjectIsSetInPlace)
{
    const struct {
        ULONG Options;
        LONGLONG Position;
        NTSTATUS Status;
        LONGLONG After; // from 5
        unsigned Requests;
    } rows[] = {
        {FILE_SYNCHRONOUS_IO_NONALERT, 77, STATUS_SUCCESS, 77, 0},
        {FILE_SYNCHRONOUS_IO_NONALERT, -1, STATUS_INVALID_PARAMETER, 5, 0},
        {FILE_SYNCHRONOUS_IO_NONALERT | FILE_NO_INTERMEDIATE_BUFFERING, 1024, STATUS_SUCCESS, 1024, 0},
        {FILE_SYNCHRONOUS_IO_NONALERT | FILE_NO_INTERMEDIATE_BUFFERING, 77, STATUS_INVALID_PARAMETER, 5, 0},
        {0, 77, STATUS_SUCCESS, 5, 1},
    };
    device->SectorSize = 512;
    for (const auto& row : rows) {
        Driver().Seen[IRP_MJ_SET_INFORMATION] = 0;
        const Opened opened = Open({.Options = row.Options});
        FileOf(opened.Handle)->CurrentByteOffset.QuadPart = 5;
        LONGLONG position = row.Position;
        IO_STATUS_BLOCK block;
        EXPECT_EQ(NtSetInformationFile(opened.Handle, &block, &position, 8, FilePositionInformation), row.Status);
        EXPECT_EQ(FileOf(opened.Handle)->CurrentByteOffset.QuadPart, row.After) << (&row - rows);
        EXPECT_EQ(Seen(IRP_MJ_SET_INFORMATION), row.Requests) << (&row - rows);
        NtClose(opened.Handle);
    }
}

TEST_F(Information, ModeChangesWithinItsKind)
{
    constexpr ULONG Alert = FILE_SYNCHRONOUS_IO_ALERT, NonAlert = FILE_SYNCHRONOUS_IO_NONALERT;
    const struct {
        ULONG Options;
        ULONG Mode;
        NTSTATUS Status;
        ULONG After;
    } rows[] = {
        {NonAlert, Alert | FILE_WRITE_THROUGH, STATUS_SUCCESS, Alert | FILE_WRITE_THROUGH},
        {NonAlert | FILE_SEQUENTIAL_ONLY, NonAlert, STATUS_SUCCESS, NonAlert},
        {NonAlert, 0, STATUS_INVALID_PARAMETER, NonAlert},
        {NonAlert, Alert | NonAlert, STATUS_INVALID_PARAMETER, NonAlert},
        {NonAlert, NonAlert | FILE_DELETE_ON_CLOSE, STATUS_INVALID_PARAMETER, NonAlert},
        {0, NonAlert, STATUS_INVALID_PARAMETER, 0},
        {0, FILE_SEQUENTIAL_ONLY, STATUS_SUCCESS, FILE_SEQUENTIAL_ONLY},
        {FILE_NO_INTERMEDIATE_BUFFERING, FILE_WRITE_THROUGH, STATUS_SUCCESS, FILE_NO_INTERMEDIATE_BUFFERING},
    };
    for (const auto& row : rows) {
        const Opened opened = Open({.Options = row.Options});
        IO_STATUS_BLOCK block;
        FILE_MODE_INFORMATION mode{row.Mode};
        EXPECT_EQ(NtSetInformationFile(opened.Handle, &block, &mode, 4, FileModeInformation), row.Status);
        EXPECT_EQ(Query(opened.Handle, FileModeInformation, &mode, &block), STATUS_SUCCESS);
        EXPECT_EQ(mode.Mode, row.After) << (&row - rows);
        NtClose(opened.Handle);
    }
    EXPECT_EQ(Seen(IRP_MJ_SET_INFORMATION), 0u);
}

TEST_F(Information, ChangeBringsItsBufferAndTakesNothingBack)
{
    const Opened opened = Open();
    Driver().Majors[IRP_MJ_SET_INFORMATION] = [](PDEVICE_OBJECT, PIRP irp) {
        const auto& set = IoGetCurrentIrpStackLocation(irp)->Parameters.SetFile;
        EXPECT_EQ(set.FileInformationClass, FileEndOfFileInformation);
        EXPECT_EQ(set.Length, 8u);
        EXPECT_EQ(set.FileObject, nullptr);
        EXPECT_FALSE(set.AdvanceOnly);
        auto* const size = static_cast<LONGLONG*>(irp->AssociatedIrp.SystemBuffer);
        EXPECT_EQ(*size, 4711);
        *size = 0;
        return Complete(irp, STATUS_SUCCESS, 8);
    };
    LONGLONG size = 4711;
    IO_STATUS_BLOCK block;
    EXPECT_EQ(NtSetInformationFile(opened.Handle, &block, &size, 8, FileEndOfFileInformation), STATUS_SUCCESS);
    EXPECT_EQ(size, 4711);
    NtClose(opened.Handle);
}

} // namespace
