// The control device: who may fetch the service table, and what it refuses, in its order.

#include <gvnd/driver.h>

#include "frame/driver.h"
#include "support/client.h"
#include "support/handmade.h"
#include "support/host.h"
#include "volume/control.h"

namespace {

using support::Handle;
using support::HandMade;
using support::HostFixture;

constexpr char kControl[] = "\\Device\\GvndCtrlDev";
constexpr char kControlLink[] = "\\??\\GvndCtrlDev_SymLink";

class Control : public HostFixture {
protected:
    void SetUp() override
    {
        HostFixture::SetUp();
        LoadGvndOrFail();
    }
};

TEST_F(Control, GivesAKernelCallerTheServiceTable)
{
    for (const char* name : {kControl, kControlLink}) {
        SCOPED_TRACE(name);
        auto opened = support::Open(name, {.Access = FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE, .Kernel = true});
        ASSERT_STATUS(STATUS_SUCCESS, opened.Status);
        const GvServices* table[2] = {nullptr, reinterpret_cast<const GvServices*>(~0ull)};
        IO_STATUS_BLOCK statusBlock = {};
        ASSERT_STATUS(STATUS_SUCCESS,
                      ZwDeviceIoControlFile(opened.File.Get(), nullptr, nullptr, nullptr, &statusBlock,
                                            IOCTL_GVND_GET_SERVICE_TABLE, nullptr, 0, table, sizeof table));
        EXPECT_EQ(statusBlock.Information, 8u);
        EXPECT_EQ(table[0], &GvServiceTable);
        EXPECT_EQ(table[1], reinterpret_cast<const GvServices*>(~0ull)); // eight bytes, however large the buffer
        EXPECT_EQ(table[0]->Reserved, nullptr);
        EXPECT_NE(table[0]->Mount, nullptr);
        EXPECT_NE(table[0]->UnmountRequest, nullptr);
    }
}

struct RefusalRow {
    const char* Name;
    bool Kernel;
    ULONG Code;
    ULONG OutputLength;
    NTSTATUS Expected;
    const char* Trace;
};

TEST_F(Control, RefusesInOrder)
{
    // Who calls comes first, then the code, then the room.
    const RefusalRow rows[] = {
        {"user, right code", false, IOCTL_GVND_GET_SERVICE_TABLE, 8, STATUS_INVALID_PARAMETER, "umode caller"},
        {"user, any code", false, 0x222000, 0, STATUS_INVALID_PARAMETER, "umode caller"},
        {"kernel, other code", true, 0x222000, 0, STATUS_INVALID_PARAMETER, "bad ioctl\n"},
        {"kernel, no room", true, IOCTL_GVND_GET_SERVICE_TABLE, 7, STATUS_BUFFER_TOO_SMALL, "buffer too small\n"},
    };
    for (const RefusalRow& row : rows) {
        SCOPED_TRACE(row.Name);
        Trace().Clear();
        auto opened =
            support::Open(kControl, {.Access = FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE, .Kernel = row.Kernel});
        ASSERT_STATUS(STATUS_SUCCESS, opened.Status);
        ULONGLONG output = 0;
        IO_STATUS_BLOCK statusBlock = {};
        const auto control = row.Kernel ? ZwDeviceIoControlFile : NtDeviceIoControlFile;
        EXPECT_STATUS(row.Expected, control(opened.File.Get(), nullptr, nullptr, nullptr, &statusBlock, row.Code,
                                            nullptr, 0, &output, row.OutputLength));
        EXPECT_EQ(output, 0u);
        EXPECT_TRUE(Trace().Contains(row.Trace)) << support::Join(Trace().Texts());
        EXPECT_TRUE(Trace().Contains("GvCtrlHandleIrp() done, FO: 0x"));
    }
}

TEST_F(Control, ServesNothingButItsTable)
{
    auto opened = support::Open(kControl, {.Kernel = true});
    ASSERT_STATUS(STATUS_SUCCESS, opened.Status);
    PVOID object = nullptr;
    ASSERT_STATUS(STATUS_SUCCESS,
                  ObReferenceObjectByHandle(opened.File.Get(), 0, IoFileObjectType, KernelMode, &object, nullptr));
    const auto fileObject = static_cast<PFILE_OBJECT>(object);
    const uint64_t contexts = Trace().Count("GvAllocIrpContext");

    EXPECT_STATUS(STATUS_NOT_SUPPORTED, HandMade(GvCtrlDevice, fileObject, IRP_MJ_READ).Send());
    EXPECT_TRUE(Trace().Contains("bad major-function: 0x3\n"));
    EXPECT_STATUS(STATUS_NOT_SUPPORTED, HandMade(GvCtrlDevice, fileObject, IRP_MJ_DIRECTORY_CONTROL).Send());
    // No routine of the driver's own stands behind this one, so the control-device test is never made.
    EXPECT_STATUS(STATUS_INVALID_DEVICE_REQUEST, HandMade(GvCtrlDevice, fileObject, IRP_MJ_POWER).Send());
    EXPECT_TRUE(Trace().Contains("GvUnsupportedIrp() done, FO: 0x"));

    // A file object of another device.
    const PDEVICE_OBJECT real = fileObject->DeviceObject;
    DEVICE_OBJECT foreign = {};
    fileObject->DeviceObject = &foreign;
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, HandMade(GvCtrlDevice, fileObject, IRP_MJ_CLEANUP).Send());
    EXPECT_TRUE(Trace().Contains("dev-obj's don't match: 0x"));
    fileObject->DeviceObject = real;

    EXPECT_EQ(Trace().Count("GvAllocIrpContext"), contexts);
    ObDereferenceObject(fileObject);
}

TEST_F(Control, NarrowsPointersInTheTrace)
{
    auto opened = support::Open(kControl, {.Kernel = true});
    for (const std::string& text : Trace().Texts()) {
        EXPECT_LT(text.size(), 200u) << text;
        EXPECT_EQ(text.find("0xffff"), std::string::npos) << text;
    }
    EXPECT_GE(Trace().Count("GVND-> 0x"), 2u);
}

} // namespace
