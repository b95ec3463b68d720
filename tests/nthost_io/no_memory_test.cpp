// Services without memory: each allocation on the way fails once, is reported, and nothing stays behind. The services
// are called from a driver's routine, since only calls from there can be made to fail.
#include "probe.h"

#include <cstring>

#include <nthost/faults.h>

using namespace probe;

namespace {

alignas(8) char buffer[256];
IO_STATUS_BLOCK block;

struct ServiceRow {
    const char* Name;
    ULONG Device; // flags that say how buffers travel
    NTSTATUS (*Call)(HANDLE file);
    unsigned Irps;
    unsigned Buffers;
    unsigned Mdls;
};

NTSTATUS Move(decltype(&ZwWriteFile) service, HANDLE file)
{
    LARGE_INTEGER offset{};
    return service(file, nullptr, nullptr, nullptr, &block, buffer, 16, &offset, nullptr);
}

NTSTATUS RenameTo(HANDLE file, std::u16string name)
{
    auto* const info = reinterpret_cast<FILE_RENAME_INFORMATION*>(buffer);
    *info = {};
    info->FileNameLength = static_cast<ULONG>(name.size() * sizeof(WCHAR));
    memcpy(info->FileName, name.data(), info->FileNameLength);
    return ZwSetInformationFile(file, &block, info, sizeof buffer, FileRenameInformation);
}

void OneAttribute(FILE_FULL_EA_INFORMATION* list)
{
    *list = {};
    list->EaNameLength = 1;
    list->EaName[0] = 'a';
    list->EaName[1] = 0;
}

NTSTATUS CreateWithEa(HANDLE)
{
    OneAttribute(reinterpret_cast<FILE_FULL_EA_INFORMATION*>(buffer));
    Name path(L"\\??\\Probe\\file");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, path, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE handle;
    const NTSTATUS status =
        ZwCreateFile(&handle, FILE_READ_DATA, &attributes, &block, nullptr, 0, 0, FILE_CREATE, 0, buffer, 10);
    if (NT_SUCCESS(status)) ZwClose(handle);
    return status;
}

constexpr ServiceRow kServices[] = {
    {"write, neither", 0, [](HANDLE file) { return Move(ZwWriteFile, file); }, 1, 0, 0},
    {"write, buffered", DO_BUFFERED_IO, [](HANDLE file) { return Move(ZwWriteFile, file); }, 1, 1, 0},
    {"write, direct", DO_DIRECT_IO, [](HANDLE file) { return Move(ZwWriteFile, file); }, 1, 0, 1},
    {"read, direct", DO_DIRECT_IO, [](HANDLE file) { return Move(ZwReadFile, file); }, 1, 0, 1},
    {"query", 0, [](HANDLE file) { return ZwQueryInformationFile(file, &block, buffer, 40, FileBasicInformation); }, 1,
     1, 0},
    {"set", 0, [](HANDLE file) { return ZwSetInformationFile(file, &block, buffer, 8, FileEndOfFileInformation); }, 1,
     1, 0},
    {"rename", 0, [](HANDLE file) { return RenameTo(file, u"new"); }, 1, 1, 0},
    // The source is asked what it is, the target opened; cleanup and close of that cannot fail.
    {"rename to a path", 0, [](HANDLE file) { return RenameTo(file, u"\\??\\Probe\\new"); }, 3, 1, 0},
    {"create with attributes", 0, CreateWithEa, 1, 1, 0},
    {"query of attributes", DO_BUFFERED_IO,
     [](HANDLE file) {
         CHAR names[] = {0, 0, 0, 0, 1, 'a', 0};
         return ZwQueryEaFile(file, &block, buffer, 64, FALSE, names, sizeof names, nullptr, FALSE);
     },
     1, 2, 0},
    {"set of attributes", DO_DIRECT_IO,
     [](HANDLE file) {
         OneAttribute(reinterpret_cast<FILE_FULL_EA_INFORMATION*>(buffer));
         return ZwSetEaFile(file, &block, buffer, 10);
     },
     1, 0, 1},
    {"query of volume", 0,
     [](HANDLE file) { return ZwQueryVolumeInformationFile(file, &block, buffer, 24, FileFsSizeInformation); }, 1, 1,
     0},
    {"flush", 0, [](HANDLE file) { return ZwFlushBuffersFile(file, &block); }, 1, 0, 0},
};

using NoMemory = IoTest;

TEST_F(NoMemory, EachServiceSaysSoAndLeavesNothing)
{
    const Opened opened = Open({.Access = GENERIC_ALL | SYNCHRONIZE});
    const Opened control = Open({.Path = L"\\??\\Probe\\control"});
    for (const ServiceRow& row : kServices) {
        SCOPED_TRACE(row.Name);
        device->Flags = (device->Flags & ~(DO_BUFFERED_IO | DO_DIRECT_IO)) | row.Device;
        const struct {
            const char* Routine;
            unsigned Sites;
        } sweeps[] = {
            {"IoAllocateIrp", row.Irps}, {"ExAllocatePoolWithQuotaTag", row.Buffers}, {"IoAllocateMdl", row.Mdls}};
        for (const auto& sweep : sweeps) {
            const auto scenario = [&](unsigned n) {
                NTSTATUS status = STATUS_NOT_IMPLEMENTED;
                Driver().Majors[IRP_MJ_DEVICE_CONTROL] = [&](PDEVICE_OBJECT, PIRP irp) {
                    status = row.Call(opened.Handle);
                    return Complete(irp, STATUS_SUCCESS);
                };
                IO_STATUS_BLOCK ignored;
                EXPECT_EQ(Control(control.Handle, nullptr, &ignored), STATUS_SUCCESS);
                EXPECT_EQ(status, n <= sweep.Sites ? STATUS_INSUFFICIENT_RESOURCES : STATUS_SUCCESS) << n;
            };
            EXPECT_EQ(nthost::SweepFaults(sweep.Routine, scenario), sweep.Sites) << sweep.Routine;
        }
    }
    Driver().Majors[IRP_MJ_DEVICE_CONTROL] = nullptr;
    EXPECT_EQ(Seen(IRP_MJ_CLEANUP), Seen(IRP_MJ_CLOSE));
    NtClose(opened.Handle);
    NtClose(control.Handle);
}

} // namespace
