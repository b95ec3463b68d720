// A malicious plugin: any sequence of services on a volume whose plugin lies. The front of the input is the user's, the
// back the plugin's.
#include "support/liar.h"
#include "support/sequence.h"
#include "support/world.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    (void)fuzz::TheHost();
    const fuzz::Balanced balanced;
    fuzz::Input input(data, size);
    const fuzz::MemfsTable memfs;
    fuzz::Liar liar(memfs.Operations(), input.SplitBack());
    fuzz::UseVolume(GvMemfsPlugin(), memfs.Operations(), liar.Operations(),
                    [&](const std::string& link) { fuzz::Sequence(input, link).Run(); });
    return 0;
}
