// A hostile user: any sequence of services on a memfs volume.
#include "support/sequence.h"
#include "support/world.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    (void)fuzz::TheHost();
    const fuzz::Balanced balanced;
    fuzz::Input input(data, size);
    const fuzz::MemfsTable memfs;
    fuzz::UseVolume(GvMemfsPlugin(), memfs.Operations(), memfs.Operations(),
                    [&](const std::string& link) { fuzz::Sequence(input, link).Run(); });
    return 0;
}
