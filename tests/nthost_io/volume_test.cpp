// Volume information, flushing, file-system control and shutdown: what is demanded, and what the driver sees.
#include "probe.h"

#include <cstring>

#include <nthost/requests.h>

using namespace probe;

namespace {

using Volume = IoTest;

struct ClassRow {
    FS_INFORMATION_CLASS Class;
    ULONG Least;
    ULONG Alignment;
    ACCESS_MASK Access;
};

using VolumeService = decltype(&NtQueryVolumeInformationFile);

void ExpectDemands(VolumeService service, const ClassRow& row)
{
    SCOPED_TRACE(row.Class);
    alignas(8) char buffer[128] = {};
    IO_STATUS_BLOCK block;
    const Opened entitled = Open({.Access = row.Access | SYNCHRONIZE}), bare = Open({.Access = SYNCHRONIZE});
    EXPECT_EQ(service(entitled.Handle, &block, buffer, row.Least - 1, row.Class), STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(service(entitled.Handle, &block, buffer + row.Alignment / 2, row.Least, row.Class),
              STATUS_DATATYPE_MISALIGNMENT);
    EXPECT_EQ(service(bare.Handle, &block, buffer, row.Least, row.Class),
              row.Access ? STATUS_ACCESS_DENIED : STATUS_SUCCESS);
    EXPECT_EQ(service(entitled.Handle, &block, buffer, row.Least, row.Class), STATUS_SUCCESS);
    EXPECT_EQ(service(entitled.Handle, &block, buffer, row.Least, static_cast<FS_INFORMATION_CLASS>(0)),
              STATUS_INVALID_INFO_CLASS);
    NtClose(entitled.Handle);
    NtClose(bare.Handle);
}

TEST_F(Volume, ClassesDemandLengthAlignmentAndAccess)
{
    constexpr ClassRow queries[] = {
        {FileFsVolumeInformation, 24, 8, 0},
        {FileFsDeviceInformation, 8, 4, 0},
        {FileFsControlInformation, 48, 8, FILE_READ_DATA},
    };
    for (const ClassRow& row : queries) ExpectDemands(NtQueryVolumeInformationFile, row);
    ExpectDemands(NtSetVolumeInformationFile, {FileFsLabelInformation, 8, 4, FILE_WRITE_DATA});
    const Opened opened = Open();
    IO_STATUS_BLOCK block;
    char buffer[64];
    EXPECT_EQ(NtQueryVolumeInformationFile(opened.Handle, &block, buffer, sizeof buffer, FileFsLabelInformation),
              STATUS_INVALID_INFO_CLASS); // the label is asked for with the volume
    EXPECT_EQ(NtSetVolumeInformationFile(opened.Handle, &block, buffer, sizeof buffer, FileFsVolumeInformation),
              STATUS_INVALID_INFO_CLASS);
    NtClose(opened.Handle);
}

TEST_F(Volume, LabelGoesInAndInformationComesBack)
{
    const Opened opened = Open();
    IO_STATUS_BLOCK block;
    FILE_FS_DEVICE_INFORMATION info{};
    Driver().Majors[IRP_MJ_QUERY_VOLUME_INFORMATION] = [](PDEVICE_OBJECT, PIRP irp) {
        const auto& query = IoGetCurrentIrpStackLocation(irp)->Parameters.QueryVolume;
        EXPECT_EQ(query.Length, sizeof(FILE_FS_DEVICE_INFORMATION));
        EXPECT_EQ(query.FsInformationClass, FileFsDeviceInformation);
        *static_cast<FILE_FS_DEVICE_INFORMATION*>(irp->AssociatedIrp.SystemBuffer) = {7, 0x20};
        return Complete(irp, STATUS_SUCCESS, sizeof(FILE_FS_DEVICE_INFORMATION));
    };
    EXPECT_EQ(NtQueryVolumeInformationFile(opened.Handle, &block, &info, sizeof info, FileFsDeviceInformation),
              STATUS_SUCCESS);
    EXPECT_EQ(info.Characteristics, 0x20u);

    Driver().Majors[IRP_MJ_SET_VOLUME_INFORMATION] = [](PDEVICE_OBJECT, PIRP irp) {
        const auto& set = IoGetCurrentIrpStackLocation(irp)->Parameters.SetVolume;
        EXPECT_EQ(set.Length, sizeof(FILE_FS_LABEL_INFORMATION));
        EXPECT_EQ(set.FsInformationClass, FileFsLabelInformation);
        const auto* const label = static_cast<const FILE_FS_LABEL_INFORMATION*>(irp->AssociatedIrp.SystemBuffer);
        EXPECT_EQ(label->VolumeLabel[0], L'L');
        return Complete(irp, STATUS_MEDIA_WRITE_PROTECTED);
    };
    FILE_FS_LABEL_INFORMATION label{2, {L'L'}};
    EXPECT_EQ(NtSetVolumeInformationFile(opened.Handle, &block, &label, sizeof label, FileFsLabelInformation),
              STATUS_MEDIA_WRITE_PROTECTED);
    NtClose(opened.Handle);
}

TEST_F(Volume, FlushNeedsARightToWrite)
{
    const struct {
        ACCESS_MASK Access;
        NTSTATUS Status;
    } rows[] = {
        {FILE_READ_DATA, STATUS_ACCESS_DENIED},
        {FILE_APPEND_DATA, STATUS_SUCCESS},
        {FILE_WRITE_DATA, STATUS_SUCCESS},
    };
    for (const auto& row : rows) {
        const Opened opened = Open({.Access = row.Access | SYNCHRONIZE, .Options = 0});
        IO_STATUS_BLOCK block;
        EXPECT_EQ(NtFlushBuffersFile(opened.Handle, &block), row.Status);
        EXPECT_EQ(ZwFlushBuffersFile(opened.Handle, &block), row.Status);
        NtClose(opened.Handle);
    }
    EXPECT_EQ(Seen(IRP_MJ_FLUSH_BUFFERS), 4u);
}

TEST_F(Volume, FileSystemControlIsAnotherMajorOfTheSameKind)
{
    const Opened opened = Open({.Access = FILE_READ_DATA | SYNCHRONIZE});
    Driver().Majors[IRP_MJ_FILE_SYSTEM_CONTROL] = [](PDEVICE_OBJECT, PIRP irp) {
        const IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(irp);
        EXPECT_EQ(location.MinorFunction, IRP_MN_USER_FS_REQUEST);
        EXPECT_EQ(location.Parameters.FileSystemControl.FsControlCode, Code(METHOD_BUFFERED));
        EXPECT_EQ(location.Parameters.FileSystemControl.InputBufferLength, 3u);
        EXPECT_EQ(location.Parameters.FileSystemControl.OutputBufferLength, 4u);
        memcpy(irp->AssociatedIrp.SystemBuffer, "out", 4);
        return Complete(irp, STATUS_SUCCESS, 4);
    };
    char in[] = "in", out[4] = {};
    IO_STATUS_BLOCK block;
    EXPECT_EQ(NtFsControlFile(opened.Handle, nullptr, nullptr, nullptr, &block, Code(METHOD_BUFFERED), in, 3, out, 4),
              STATUS_SUCCESS);
    EXPECT_STREQ(out, "out");
    EXPECT_EQ(NtFsControlFile(opened.Handle, nullptr, nullptr, nullptr, &block,
                              Code(METHOD_BUFFERED, FILE_WRITE_ACCESS), nullptr, 0, nullptr, 0),
              STATUS_ACCESS_DENIED);
    NtClose(opened.Handle);
}

TEST_F(Volume, ShutdownReachesTheDevice)
{
    Driver().Majors[IRP_MJ_SHUTDOWN] = [](PDEVICE_OBJECT target, PIRP irp) {
        EXPECT_EQ(target, device);
        EXPECT_EQ(IoGetCurrentIrpStackLocation(irp)->FileObject, nullptr);
        EXPECT_TRUE(IoIsOperationSynchronous(irp));
        return Complete(irp, STATUS_DEVICE_NOT_READY);
    };
    EXPECT_EQ(nthost::SendShutdown(device), STATUS_DEVICE_NOT_READY);
}

} // namespace
