// The scripted driver, and the fixture's beginning and end.
#include "probe.h"

namespace probe {

Script* script;
PDEVICE_OBJECT device;

namespace {

NTSTATUS NTAPI Dispatcher(PDEVICE_OBJECT target, PIRP irp)
{
    const UCHAR major = IoGetCurrentIrpStackLocation(irp)->MajorFunction;
    ++script->Seen[major];
    if (const Dispatch& routine = script->Majors[major]) return routine(target, irp);
    return Complete(irp, STATUS_SUCCESS);
}

VOID NTAPI DriverUnload(PDRIVER_OBJECT driver)
{
    if (script->Unload)
        script->Unload(driver);
    else
        DeleteUsualDevice();
}

} // namespace

NTSTATUS MakeUsualDevice(PDRIVER_OBJECT driver)
{
    Name name(L"\\Device\\Probe"), link(L"\\??\\Probe");
    const NTSTATUS status = IoCreateDevice(driver, 16, name, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    return NT_SUCCESS(status) ? IoCreateSymbolicLink(link, name) : status;
}

void DeleteUsualDevice()
{
    Name link(L"\\??\\Probe");
    EXPECT_EQ(IoDeleteSymbolicLink(link), STATUS_SUCCESS);
    IoDeleteDevice(device);
}

NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    for (PDRIVER_DISPATCH& routine : driver->MajorFunction) routine = Dispatcher;
    driver->DriverUnload = DriverUnload;
    return script->Entry ? script->Entry(driver) : MakeUsualDevice(driver);
}

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

Opened Open(const OpenArguments& arguments)
{
    Name path(arguments.Path);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, path, arguments.ObjectAttributes, arguments.Root, nullptr);
    Opened opened{};
    opened.Block = {{STATUS_NOT_IMPLEMENTED}, 77};
    opened.Status =
        NtCreateFile(&opened.Handle, arguments.Access, &attributes, &opened.Block, nullptr, arguments.Attributes,
                     arguments.Sharing, arguments.Disposition, arguments.Options, nullptr, 0);
    return opened;
}

NTSTATUS Control(HANDLE file, HANDLE event, IO_STATUS_BLOCK* block)
{
    return NtDeviceIoControlFile(file, event, nullptr, nullptr, block, Code(METHOD_BUFFERED), nullptr, 0, nullptr, 0);
}

PFILE_OBJECT FileOf(HANDLE handle)
{
    void* object = nullptr;
    EXPECT_EQ(ObReferenceObjectByHandle(handle, 0, IoFileObjectType, KernelMode, &object, nullptr), STATUS_SUCCESS);
    ObDereferenceObject(object);
    return static_cast<PFILE_OBJECT>(object);
}

std::string Text(PCUNICODE_STRING text) { return nthost::ToUtf8(text); }

Dispatch Parked::Routine()
{
    return [this](PDEVICE_OBJECT, PIRP irp) {
        IoMarkIrpPending(irp);
        irp_ = irp;
        arrived_.release();
        return STATUS_PENDING;
    };
}

PIRP Parked::Await()
{
    arrived_.acquire();
    return irp_;
}

void Parked::CompleteOnOtherThread(NTSTATUS status)
{
    completer_ = nthost::StartThread(nthost::HostProcess(), [this, status] { Complete(Await(), status); });
}

Parked::~Parked()
{
    if (completer_.joinable()) completer_.join();
}

void IoTest::SetUp()
{
    script = &script_;
    BootedTest::SetUp();
    ASSERT_EQ(nthost::LoadDriver("probe", DriverEntry, &driver_), STATUS_SUCCESS);
}

NTSTATUS IoTest::Unload(std::vector<std::string>* leaks)
{
    nthost::LeakReport report;
    const NTSTATUS status = nthost::UnloadDriver(driver_, &report);
    if (NT_SUCCESS(status)) driver_ = nullptr;
    *leaks = report.Lines;
    return status;
}

void IoTest::TearDown()
{
    if (IsUp() && driver_) {
        std::vector<std::string> leaks;
        EXPECT_EQ(Unload(&leaks), STATUS_SUCCESS);
        EXPECT_EQ(leaks, std::vector<std::string>());
    }
    BootedTest::TearDown();
    script = nullptr;
}

} // namespace probe
