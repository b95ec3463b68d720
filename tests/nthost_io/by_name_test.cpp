// Services that take a name: what they open, ask and leave behind.
#include "probe.h"

using namespace probe;

namespace {

using ByName = IoTest;

struct Attributes {
    Name Path{L"\\??\\Probe\\file"};
    OBJECT_ATTRIBUTES Value;
    Attributes() { InitializeObjectAttributes(&Value, Path, OBJ_CASE_INSENSITIVE, nullptr, nullptr); }
    operator POBJECT_ATTRIBUTES() { return &Value; }
};

TEST_F(ByName, OpenDoOneThingAndClose)
{
    ULONG options = 0;
    ACCESS_MASK access = 0;
    Driver().Majors[IRP_MJ_CREATE] = [&](PDEVICE_OBJECT, PIRP irp) {
        const auto& create = IoGetCurrentIrpStackLocation(irp)->Parameters.Create;
        options = create.Options;
        access = create.SecurityContext->DesiredAccess;
        EXPECT_EQ(create.ShareAccess, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
        return Complete(irp, STATUS_SUCCESS);
    };
    Driver().Majors[IRP_MJ_QUERY_INFORMATION] = [](PDEVICE_OBJECT, PIRP irp) {
        const auto& query = IoGetCurrentIrpStackLocation(irp)->Parameters.QueryFile;
        if (query.FileInformationClass == FileBasicInformation)
            static_cast<PFILE_BASIC_INFORMATION>(irp->AssociatedIrp.SystemBuffer)->FileAttributes = 0x20;
        else
            static_cast<PFILE_NETWORK_OPEN_INFORMATION>(irp->AssociatedIrp.SystemBuffer)->EndOfFile.QuadPart = 5;
        return Complete(irp, STATUS_SUCCESS, query.Length);
    };
    Attributes attributes;
    EXPECT_EQ(NtDeleteFile(attributes), STATUS_SUCCESS);
    EXPECT_EQ(options, FILE_OPEN << 24 | FILE_DELETE_ON_CLOSE);
    EXPECT_EQ(access, DELETE);

    FILE_BASIC_INFORMATION basic{};
    EXPECT_EQ(NtQueryAttributesFile(attributes, &basic), STATUS_SUCCESS);
    EXPECT_EQ(basic.FileAttributes, 0x20u);
    EXPECT_EQ(options, FILE_OPEN << 24 | FILE_OPEN_REPARSE_POINT);
    EXPECT_EQ(access, FILE_READ_ATTRIBUTES);
    FILE_NETWORK_OPEN_INFORMATION network{};
    EXPECT_EQ(NtQueryFullAttributesFile(attributes, &network), STATUS_SUCCESS);
    EXPECT_EQ(network.EndOfFile.QuadPart, 5);
    EXPECT_EQ(Seen(IRP_MJ_CLEANUP), 3u);
    EXPECT_EQ(Seen(IRP_MJ_CLOSE), 3u);

    Driver().Majors[IRP_MJ_QUERY_INFORMATION] = [](PDEVICE_OBJECT, PIRP irp) {
        return Complete(irp, STATUS_INVALID_PARAMETER);
    };
    EXPECT_EQ(NtQueryAttributesFile(attributes, &basic), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(NtQueryAttributesFile(attributes, nullptr), STATUS_ACCESS_VIOLATION);
    Driver().Majors[IRP_MJ_CREATE] = [](PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_SHARING_VIOLATION); };
    EXPECT_EQ(NtDeleteFile(attributes), STATUS_SHARING_VIOLATION);
    EXPECT_EQ(Seen(IRP_MJ_CLOSE), 4u);
}

} // namespace
