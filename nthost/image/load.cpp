// Loading: file, memory, tables for unwinding, names, debugger. One lock for all that changes; looking modules up takes
// none.
#include "image/load.h"

#include <filesystem>
#include <mutex>
#include <string_view>

#include "check/stack.h"
#include "image/debugger.h"
#include "image/frames.h"
#include "image/map.h"
#include "image/platform.h"
#include "image/seh.h"
#include "image/symbols.h"
#include "ke/exceptions.h"
#include <nthost/check.h>

// The compilers' run-time library: tables for its unwinder, and so for backtrace().
extern "C" void __register_frame(void*);
extern "C" void __deregister_frame(void*);

namespace nthost::image {

namespace {

std::mutex g_lock;

size_t HashOf(const std::vector<uint8_t>& bytes)
{
    return std::hash<std::string_view>()({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

bool AddressText(void* address, std::string* text)
{
    const Module* const module = FindModule(reinterpret_cast<uint64_t>(address));
    if (module) *text = ImageAddressText(*module, reinterpret_cast<uint64_t>(address));
    return module;
}

// A step of the quick walk, which follows frame pointers and has no other registers.
bool StepOverImage(StackPosition* position)
{
    const Module* const module = FindModule(reinterpret_cast<uint64_t>(position->ReturnAddress));
    if (!module || module->Unloaded) return false;
    Context context;
    context.Rip = reinterpret_cast<uint64_t>(position->ReturnAddress);
    context.Gpr[Rsp] = position->StackPointer;
    context.Gpr[Rbp] = position->FramePointer;
    ImageFrame frame;
    if (!StepImage(*module, context, &frame)) return false;
    *position = {reinterpret_cast<void*>(context.Rip), context.Gpr[Rsp], context.Gpr[Rbp]};
    return true;
}

constexpr ke::ExceptionHooks kExceptionHooks = {AnyModule, EmulateInstruction, DispatchException};
constexpr StackHooks kStackHooks = {AnyModule, AddressText, StepOverImage};

void Announce(Module* module)
{
    __register_frame(module->Frames.data());
    ShowToDebugger(module);
}

NTSTATUS Refuse(const std::string& path, const std::string& reason, const std::vector<std::string>& missing)
{
    for (const std::string& name : missing)
        ReportFinding("image-import-missing", path + " imports " + name + ", which nthost does not have");
    if (!missing.empty()) return STATUS_DRIVER_ENTRYPOINT_NOT_FOUND;
    ReportFinding("image-unusable", path + ": " + reason);
    return STATUS_INVALID_IMAGE_FORMAT;
}

void Describe(const std::string& path, const PeFile& file, Module* module)
{
    module->Name = std::filesystem::path(path).filename().string();
    module->Entry = file.Entry;
    module->Sections = file.Sections;
    module->Symbols = ReadSymbols(path, file.PreferredBase, file.Sections);
    module->Frames = MakeFrames(*module);
}

void Discard(Module* module)
{
    if (!module->Unloaded) {
        HideFromDebugger(module);
        __deregister_frame(module->Frames.data());
    }
    ReleaseRange(module);
    delete module;
}

} // namespace

NTSTATUS Load(const std::string& path, Module** module)
{
    *module = nullptr;
    std::string reason;
    if (!NTHOST_MS_ABI) {
        ReportFinding("image-unusable", path + ": images need a build with GVND_MS_ABI, this one has none");
        return STATUS_NOT_SUPPORTED;
    }
    const std::optional<PeFile> file = ReadPeFile(path, &reason);
    if (!file) return Refuse(path, reason, {});

    const std::lock_guard hold(g_lock);
    ke::SetExceptionHooks(&kExceptionHooks);
    SetStackHooks(&kStackHooks);
    const size_t hash = HashOf(file->Bytes);
    Module* const twin = UnloadedTwin(hash);
    Module* const made = twin ? twin : new Module;
    std::vector<std::string> missing;
    if (!MapImage(*file, made, &reason, &missing)) {
        if (!twin) ReleaseRange(made), delete made;
        return Refuse(path, reason, missing);
    }
    if (!twin) {
        made->Hash = hash;
        Describe(path, *file, made);
        if (!EnterModule(made)) {
            ReleaseRange(made);
            delete made;
            return STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    made->Unloaded = false;
    Announce(made);
    *module = made;
    return STATUS_SUCCESS;
}

void Unload(Module* module)
{
    const std::lock_guard hold(g_lock);
    HideFromDebugger(module);
    __deregister_frame(module->Frames.data());
    module->Unloaded = true;
    UnmapImage(module);
}

void Forget()
{
    const std::lock_guard hold(g_lock);
    ClearModules(Discard);
}

} // namespace nthost::image
