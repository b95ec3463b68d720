// Values in the service keys of the driver and of a plugin's service, of any type, length and content.
#include <nthost/registry.h>

#include "support/world.h"
#include "support/input.h"

namespace {

constexpr char kServices[] = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\";

void SetValue(fuzz::Input& input, const char* service, const char* name)
{
    static constexpr ULONG kTypes[] = {REG_SZ,     REG_SZ,   REG_DWORD,    REG_EXPAND_SZ,
                                       REG_BINARY, REG_NONE, REG_MULTI_SZ, REG_QWORD};
    static const std::u16string kTexts[] = {u"\\Device\\Other",
                                            u"\\??\\Other",
                                            u"\\Device\\Null",
                                            u"D:P(A;;GA;;;WD)",
                                            u"capacity=1M",
                                            u"label=\u00e9,capacity=4K",
                                            u"",
                                            u"\\",
                                            std::u16string(0x7fff, u'x'),
                                            std::u16string(0x8000, u'x')};
    const uint8_t how = input.Byte();
    (void)nthost::DeleteRegistryValue(std::string(kServices) + service, name);
    if (how < 64) return;
    std::string data;
    if (how < 160) {
        const std::u16string& text = input.Pick(kTexts);
        data.assign(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(char16_t));
        if (how & 1) data.append(2, '\0');
    } else {
        data = input.Bytes(64);
    }
    (void)nthost::SetRegistryValue(std::string(kServices) + service, name, input.Pick(kTypes), data.data(),
                                   data.size());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    workbench::Host& host = fuzz::TheHost();
    host.UnloadDrivers();
    fuzz::Input input(data, size);
    SetValue(input, "gvnd", "NumVcbWorkers");
    for (const char* name : {"DeviceName", "LinkName", "BackingPath", "Sddl", "Arguments"})
        SetValue(input, "gvmemfs", name);
    // What was allocated since then is the drivers', and they are unloaded.
    const fuzz::Balanced balanced;
    workbench::Require("load the driver", host.LoadGvnd());
    (void)host.Load("gvmemfs", GvMemfsDriverEntry);
    for (const std::string& line : host.UnloadDrivers().Lines) fuzz::Fail("left behind", line);
    return 0;
}
