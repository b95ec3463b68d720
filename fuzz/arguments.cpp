// What a user writes behind a plugin's name.
#include <hostfs/hostfs.h>

#include "support/input.h"
#include "support/world.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    (void)fuzz::TheHost();
    const fuzz::Balanced balanced;
    fuzz::Input input(data, size);
    const GvndPlugin* const plugin = input.Byte() & 1 ? GvHostfsPlugin() : GvMemfsPlugin();
    const std::string text = input.Bytes(0x1000);
    // In a block of its own, to its NUL.
    const std::unique_ptr<char[]> arguments(new char[text.size() + 1]);
    std::memcpy(arguments.get(), text.c_str(), text.size() + 1);
    PluginOps* operations = nullptr;
    const NTSTATUS status = plugin->Create(arguments.get(), &operations);
    if (NT_SUCCESS(status) != (operations != nullptr)) fuzz::Fail("table", "does not go with the status");
    if (operations) plugin->Destroy(operations);
    return 0;
}
