// Holds a plugin to its contract from a test of its author's: a right one passes, and a mistake is named.
#include <cstdio>
#include <exception>

#include <checker/checker.h>
#include <gvnd/memfs.h>

namespace {

PluginOps* g_right;
PluginOps g_wrong;

// Whoever asks for an object that is not there is told so, but not in the words that the driver looks for.
NTSTATUS NTAPI Lookup(void* context, PKEVENT cancel, PCUNICODE_STRING path, PluginFileInfo** info,
                      PluginAccessMask* access)
{
    const NTSTATUS status = g_right->Lookup(context, cancel, path, info, access);
    return status == STATUS_OBJECT_NAME_NOT_FOUND ? STATUS_UNSUCCESSFUL : status;
}

NTSTATUS NTAPI Create(const char* arguments, PluginOps** ops)
{
    const NTSTATUS status = GvMemfsPlugin()->Create(arguments, &g_right);
    if (!NT_SUCCESS(status)) return status;
    g_wrong = *g_right;
    g_wrong.Lookup = Lookup;
    *ops = &g_wrong;
    return STATUS_SUCCESS;
}

VOID NTAPI WaitUntilUnmounted(PluginOps*) { GvMemfsPlugin()->WaitUntilUnmounted(g_right); }
VOID NTAPI Destroy(PluginOps*) { GvMemfsPlugin()->Destroy(g_right); }

constexpr GvndPlugin kWrong = {
    GVND_PLUGIN_ENTRY_VERSION, 0, "wrong", "memfs with a mistake", "", Create, WaitUntilUnmounted, Destroy,
};

bool Breaks(const checker::Report& report, const std::string& property)
{
    for (const checker::Result& result : report.Results)
        if (result.Outcome == checker::Verdict::Broken && property == result.Rule->Id) return true;
    return false;
}

} // namespace

int main()
{
    try {
        const checker::Options options = {.Steps = 50, .Threads = 2};
        const checker::Report right = checker::Check(*GvMemfsPlugin(), "", options);
        if (!right.AllHold()) std::printf("%s", checker::AsText(right).c_str());
        const checker::Report wrong = checker::Check(kWrong, "", options);
        const bool named = !wrong.AllHold() && Breaks(wrong, "lookup.missing-name");
        if (!named) std::printf("the mistake is not named\n%s", checker::AsText(wrong).c_str());
        return right.AllHold() && named ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
