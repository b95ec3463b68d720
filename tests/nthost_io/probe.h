// A driver whose dispatch routines a test writes, loaded on a booted host; and short forms of the services. The
// fixture's end expects that the driver unloads clean, nothing leaked and no finding is left.
#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include <nthost/check.h>
#include <nthost/debug.h>
#include <nthost/process.h>
#include <workbench/text.h>

#include "support/host.h"

namespace probe {

using Dispatch = std::function<NTSTATUS(PDEVICE_OBJECT, PIRP)>;

// What the driver does; reset by the fixture. A major function without a routine of its own succeeds.
struct Script {
    std::array<Dispatch, IRP_MJ_MAXIMUM_FUNCTION + 1> Majors;
    std::array<std::atomic<unsigned>, IRP_MJ_MAXIMUM_FUNCTION + 1> Seen{};
    std::function<NTSTATUS(PDRIVER_OBJECT)> Entry; // instead of making the usual device
    std::function<void(PDRIVER_OBJECT)> Unload;    // instead of deleting it
};
extern Script* script;
extern PDEVICE_OBJECT device; // the usual one: \Device\Probe, with the link \??\Probe

NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);
NTSTATUS MakeUsualDevice(PDRIVER_OBJECT driver);
void DeleteUsualDevice();

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0);

using Name = workbench::Text;

struct OpenArguments {
    const wchar_t* Path = L"\\??\\Probe\\file";
    ACCESS_MASK Access = FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE;
    ULONG Options = FILE_SYNCHRONOUS_IO_NONALERT;
    ULONG Disposition = FILE_OPEN;
    HANDLE Root = nullptr;
    ULONG Attributes = 0;
    ULONG Sharing = FILE_SHARE_READ;
    ULONG ObjectAttributes = OBJ_CASE_INSENSITIVE;
};

struct Opened {
    NTSTATUS Status;
    HANDLE Handle = nullptr;
    IO_STATUS_BLOCK Block = {{STATUS_NOT_IMPLEMENTED}, 77};
};
Opened Open(const OpenArguments& arguments = {});

constexpr ULONG Code(ULONG method, ULONG access = FILE_ANY_ACCESS)
{
    return CTL_CODE(FILE_DEVICE_UNKNOWN, 0x801, method, access);
}
// A device control without buffers.
NTSTATUS Control(HANDLE file, HANDLE event, IO_STATUS_BLOCK* block);

PFILE_OBJECT FileOf(HANDLE handle); // not referenced
std::string Text(PCUNICODE_STRING text);

// A request that the driver keeps: its dispatch routine marks it pending, and says that it has come.
class Parked {
public:
    Dispatch Routine();
    PIRP Await();
    void CompleteOnOtherThread(NTSTATUS status);
    ~Parked();

private:
    std::atomic<PIRP> irp_{nullptr};
    std::binary_semaphore arrived_{0};
    std::thread completer_;
};

class IoTest : public support::BootedTest {
protected:
    void SetUp() override;
    void TearDown() override;

    unsigned Seen(UCHAR major) const { return script_.Seen[major]; }
    Script& Driver() { return script_; }
    PDRIVER_OBJECT Object() const { return driver_; }
    // Unloads before the end of the test; the lines left are the test's to judge.
    NTSTATUS Unload(std::vector<std::string>* leaks);

private:
    Script script_;
    PDRIVER_OBJECT driver_ = nullptr;
};

using support::ExpectFindings;

} // namespace probe
