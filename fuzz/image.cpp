// Files that the image loader is given: read, put into memory, and made ready for stack walks. Nothing of them is run.
#include <unistd.h>

#include <sys/mman.h>

#include "image/frames.h"
#include "image/map.h"
#include "image/symbols.h"
#include "support/input.h"
#include "support/world.h"

namespace {

// As a file that has a path.
class MemoryFile {
public:
    MemoryFile(const uint8_t* data, size_t size) : descriptor_(memfd_create("image", MFD_CLOEXEC))
    {
        if (write(descriptor_, data, size) != static_cast<ssize_t>(size)) fuzz::Fail("image", "cannot be written");
    }
    ~MemoryFile() { close(descriptor_); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    std::string Path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

private:
    int descriptor_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    (void)fuzz::TheHost();
    const MemoryFile bytes(data, size);
    std::string reason;
    const auto file = nthost::image::ReadPeFile(bytes.Path(), &reason);
    if (!file) {
        if (reason.empty()) fuzz::Fail("image", "refused without a reason");
        return 0;
    }
    nthost::image::Module module;
    module.Name = "fuzzed.sys";
    std::vector<std::string> missing;
    if (nthost::image::MapImage(*file, &module, &reason, &missing)) {
        module.Entry = file->Entry;
        module.Sections = file->Sections;
        (void)nthost::image::MakeFrames(module);
        for (size_t i = 0; i < module.FunctionCount; ++i)
            (void)nthost::image::FindFunction(module, module.Functions[i].Begin);
        nthost::image::UnmapImage(&module);
    }
    if (module.Base) nthost::image::ReleaseRange(&module);
    return 0;
}
