// Loading and unloading: what the driver sets up, what it refuses, the one setting, the event log.

#include <nthost/error_log.h>
#include <nthost/faults.h>
#include <nthost/registry.h>
#include <nthost/routines.h>

#include "entry/entry.h"
#include "frame/driver.h"
#include "support/host.h"
#include "entry/control.h"

namespace {

using support::HostFixture;

class Load : public HostFixture {};

TEST_F(Load, FillsTheDispatchAndFastIoTables)
{
    LoadGvndOrFail();
    EXPECT_EQ(Driver()->DriverUnload, GvUnload);
    unsigned unsupported = 0;
    for (const PDRIVER_DISPATCH routine : Driver()->MajorFunction) unsupported += routine == GvUnsupportedIrp;
    EXPECT_GT(unsupported, 0u);
    for (const int major : {IRP_MJ_POWER, IRP_MJ_PNP, IRP_MJ_QUERY_SECURITY, IRP_MJ_CREATE_NAMED_PIPE}) {
        EXPECT_EQ(Driver()->MajorFunction[major], GvUnsupportedIrp) << major;
    }
    ASSERT_NE(Driver()->FastIoDispatch, nullptr);
    EXPECT_EQ(Driver()->FastIoDispatch->SizeOfFastIoDispatch, 224u);
    EXPECT_EQ(Driver()->FastIoDispatch->FastIoRead, nullptr);
    EXPECT_TRUE(Trace().Contains("gvnd-ctrl-dev: 0x"));
    UnloadGvnd();
    EXPECT_TRUE(Trace().Contains("gvnd unloaded...\n"));
}

TEST_F(Load, RefusesAKernelThatCannotRenameFileObjects)
{
    const nthost::HiddenRoutine hidden("IoReplaceFileObjectName");
    EXPECT_STATUS(STATUS_NOT_SUPPORTED, LoadGvnd());
    EXPECT_TRUE(Trace().Contains("ERROR: IoReplaceFileObjectName() not found\n"));
    EXPECT_TRUE(nthost::TakeErrorLog().empty());
}

// Each way in which the control device cannot be made: one log entry with the status, and nothing left.
TEST_F(Load, LogsAControlDeviceThatCannotBeMade)
{
    for (const char* routine : {"IoCreateDevice", "IoCreateSymbolicLink"}) {
        SCOPED_TRACE(routine);
        const nthost::FaultPlan fault(routine, 1);
        EXPECT_STATUS(STATUS_INSUFFICIENT_RESOURCES, LoadGvnd());
        EXPECT_EQ(GvCtrlDevice, nullptr);
        const auto log = nthost::TakeErrorLog();
        ASSERT_EQ(log.size(), 1u);
        const IO_ERROR_LOG_PACKET packet = log[0].Header();
        EXPECT_EQ(log[0].Driver, "\\Driver\\gvnd");
        EXPECT_EQ(log[0].Packet.size(), 48u);
        EXPECT_STATUS(STATUS_INSUFFICIENT_RESOURCES, packet.ErrorCode);
        EXPECT_EQ(packet.UniqueErrorValue, 0x10002u);
        EXPECT_EQ(packet.EventCategory, 2u);
        EXPECT_EQ(packet.FinalStatus, 0);
    }
    EXPECT_TRUE(Trace().Contains("GvCreateDevAndSymLink(ctrldev): 0xc000009a\n"));
}

TEST_F(Load, ReportsAnEventLogWithoutRoom)
{
    const nthost::FaultPlan device("IoCreateDevice", 1);
    const nthost::FaultPlan entry("IoAllocateErrorLogEntry", 1);
    EXPECT_STATUS(STATUS_INSUFFICIENT_RESOURCES, LoadGvnd());
    EXPECT_TRUE(Trace().Contains("IoAllocateErrorLogEntry Error\n"));
    EXPECT_TRUE(nthost::TakeErrorLog().empty());
}

TEST_F(Load, WritesNothingToTheLogAboveDispatchLevel)
{
    LoadGvndOrFail();
    const KIRQL old = KfRaiseIrql(HIGH_LEVEL);
    GvLogDriverError(STATUS_UNSUCCESSFUL, Driver(), 1);
    KeLowerIrql(old);
    EXPECT_TRUE(nthost::TakeErrorLog().empty());
}

struct WorkersRow {
    const char* Name;
    ULONG Type;
    std::vector<UCHAR> Data;
    ULONG Expected;
    const char* Trace;
};

std::vector<UCHAR> Dword(ULONG value)
{
    const auto* bytes = reinterpret_cast<const UCHAR*>(&value);
    return {bytes, bytes + sizeof value};
}

// Only a REG_DWORD in 1 to 511 counts; anything else is said at error level, and the default taken.
TEST_F(Load, TakesTheWorkerCountFromTheServiceKey)
{
    const WorkersRow rows[] = {
        {"least", REG_DWORD, Dword(1), 1, "using user-specified vcb pool size: 1\n"},
        {"most", REG_DWORD, Dword(511), 511, "using user-specified vcb pool size: 511\n"},
        {"none", REG_DWORD, Dword(0), 16, "bad user-specified pool size: 0, using default: 16\n"},
        {"too many", REG_DWORD, Dword(512), 16, "bad user-specified pool size: 512, using default: 16\n"},
        {"other type", REG_QWORD, {8, 0, 0, 0, 0, 0, 0, 0}, 16, "ERR: value type: 0xb\n"},
        {"text that fits", REG_SZ, {'4', 0, 0, 0}, 16, "ERR: value type: 0x1\n"},
        {"text that does not fit", REG_SZ, std::vector<UCHAR>(64, 0), 16, "ZwQueryValueKey(): 0x80000005\n"},
    };
    for (const WorkersRow& row : rows) {
        SCOPED_TRACE(row.Name);
        Trace().Clear();
        ASSERT_STATUS(STATUS_SUCCESS, nthost::SetRegistryValue(support::kServiceKey, "NumVcbWorkers", row.Type,
                                                               row.Data.data(), row.Data.size()));
        LoadGvndOrFail();
        EXPECT_EQ(GvVcbThreadPoolSize, row.Expected);
        EXPECT_TRUE(Trace().Contains(row.Trace)) << support::Join(Trace().Texts());
        EXPECT_EQ(Trace().Contains("using default vcb pool size: 16\n"), row.Expected == 16);
        UnloadGvnd();
    }
}

TEST_F(Load, TakesTheDefaultWhenTheSettingCannotBeRead)
{
    LoadGvndOrFail();
    EXPECT_EQ(GvVcbThreadPoolSize, 16u);
    EXPECT_TRUE(Trace().Contains("ZwQueryValueKey(): 0xc0000034\n"));
    UnloadGvnd();
    const nthost::FaultPlan fault("ZwOpenKey", 1);
    LoadGvndOrFail();
    EXPECT_EQ(GvVcbThreadPoolSize, 16u);
    EXPECT_TRUE(Trace().Contains("ZwOpenKey(): 0xc000009a\n"));
}

} // namespace
