// SDDL strings: read by the kernel interface and by the driver's own reader, which serves kernels that lack the former,
// and then put to use on a volume that two users open.
#include <nthost/process.h>
#include <nthost/routines.h>
#include <workbench/requests.h>

#include "support/memory.h"
#include "support/world.h"

namespace {

// With its NUL; owned by nobody, as long as it says.
NTSTATUS Convert(std::u16string_view text)
{
    const std::u16string terminated(text);
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    const NTSTATUS status = SeConvertStringSecurityDescriptorToSecurityDescriptor(
        reinterpret_cast<PCWSTR>(terminated.c_str()), 1, &descriptor, nullptr);
    if (NT_SUCCESS(status)) ExFreePoolWithTag(descriptor, 0);
    return status;
}

void OpenAs(const nthost::User& user)
{
    nthost::Process process("opener", user);
    nthost::ActAs acting(process.Object());
    for (const ACCESS_MASK access :
         {FILE_READ_DATA | SYNCHRONIZE, GENERIC_ALL | SYNCHRONIZE, MAXIMUM_ALLOWED | SYNCHRONIZE})
        (void)workbench::Open("\\??\\Fuzzed\\file", {.Access = access});
}

void Mount(workbench::Host& host, PUNICODE_STRING sddl)
{
    const fuzz::MemfsTable memfs;
    workbench::Text backing("\\Device\\Null"), name("\\Device\\Fuzzed"), link("\\??\\Fuzzed");
    PDEVICE_OBJECT device = nullptr;
    if (!NT_SUCCESS(host.Services()->Mount(backing, name, link, sddl, memfs.Operations(), &device))) return;
    OpenAs({});
    OpenAs({.Sid = "S-1-5-18", .Groups = {"S-1-5-32-544"}, .DenyOnlyGroups = {}});
    workbench::Require("unmount", host.RequestUnmount(device));
    MemFsWaitUntilUnmounted(memfs.Operations());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    const uint8_t how = input.Byte();
    std::u16string text;
    while (!input.Empty() && text.size() < 0x7ff0)
        text.push_back(how & 1 ? input.Raw<char16_t>() : static_cast<char16_t>(input.Byte()));
    if (how & 2) {
        (void)fuzz::TheHost();
        const fuzz::Balanced balanced;
        (void)Convert(text);
        return 0;
    }
    fuzz::Input none(nullptr, 0);
    fuzz::HostileString sddl(none, text);
    std::unique_ptr<nthost::HiddenRoutine> hidden;
    fuzz::TheHost().UnloadDrivers();
    if (how & 4) hidden = std::make_unique<nthost::HiddenRoutine>("IoCreateDeviceSecure");
    workbench::Require("load the driver", fuzz::TheHost().LoadGvnd());
    const fuzz::Balanced balanced;
    Mount(fuzz::TheHost(), sddl.Get());
    return 0;
}
