// Captures and names stack frames. Reads nothing but its own thread's stack; no locks. Names come from the sanitizer's
// symboliser where one is linked, else from the dynamic symbol table.
#include "check/stack.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <memory>
#include <pthread.h>

#include "check/text.h"

extern "C" __attribute__((weak)) void __sanitizer_symbolize_pc(void* pc, const char* format, char* text, size_t size);

namespace nthost {

namespace {

std::atomic<const StackHooks*> g_hooks;

const StackHooks* WantedHooks()
{
    const StackHooks* const hooks = g_hooks.load(std::memory_order_acquire);
    return hooks && hooks->Wanted() ? hooks : nullptr;
}

uintptr_t StackEnd()
{
    static thread_local uintptr_t end;
    if (end) return end;
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) return 0;
    void* base = nullptr;
    size_t size = 0;
    pthread_attr_getstack(&attributes, &base, &size);
    pthread_attr_destroy(&attributes);
    return end = reinterpret_cast<uintptr_t>(base) + size;
}

std::string Demangled(const char* name)
{
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> text(abi::__cxa_demangle(name, nullptr, nullptr, &status), free);
    return text ? text.get() : name;
}

std::string DynamicSymbol(void* address)
{
    Dl_info info{};
    if (!dladdr(address, &info) || !info.dli_fname) return HexText(address);
    if (info.dli_sname) return Demangled(info.dli_sname);
    return Format("%s+0x%zx", info.dli_fname,
                  static_cast<size_t>(static_cast<char*>(address) - static_cast<char*>(info.dli_fbase)));
}

} // namespace

void SetStackHooks(const StackHooks* hooks) { g_hooks.store(hooks, std::memory_order_release); }

// The frame chain is followed within the thread's own stack only and always upwards, so a register that never was a
// frame pointer ends the walk instead of leading it astray.
__attribute__((noinline, no_sanitize("address", "thread", "undefined"))) void CaptureStack(CapturedStack& stack)
{
    const uintptr_t end = StackEnd();
    const StackHooks* const hooks = WantedHooks();
    auto frame = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    unsigned count = 0;
    while (count < kMaximumFrames && frame % sizeof(void*) == 0 && frame + 2 * sizeof(void*) <= end) {
        void* const* const words = reinterpret_cast<void**>(frame);
        if (!words[1]) break;
        stack.Frames[count++] = words[1];
        StackPosition position{words[1], frame + 2 * sizeof(void*), reinterpret_cast<uintptr_t>(words[0])};
        while (hooks && count < kMaximumFrames && hooks->Step(&position))
            stack.Frames[count++] = position.ReturnAddress;
        if (position.FramePointer <= frame) break;
        frame = position.FramePointer;
    }
    while (count < kMaximumFrames) stack.Frames[count++] = nullptr;
}

std::string FrameText(void* address)
{
    // A return address may belong to the line, even the function, after the call.
    char* const call = static_cast<char*>(address) - 1;
    if (const StackHooks* hooks = WantedHooks())
        if (std::string text; hooks->AddressText(call, &text)) return text;
    if (!__sanitizer_symbolize_pc) return DynamicSymbol(call);
    char text[1024] = "";
    __sanitizer_symbolize_pc(call, "%f %s:%l", text, sizeof(text));
    return strncmp(text, "<null>", 6) == 0 ? DynamicSymbol(call) : text;
}

std::string StackText(const CapturedStack& stack)
{
    std::string text;
    for (void* const frame : stack.Frames)
        if (frame) text += FrameText(frame) + "\n";
    return text;
}

std::string CurrentStackText()
{
    void* frames[64];
    const int count = backtrace(frames, 64);
    std::string text;
    for (int i = 1; i < count; ++i) text += FrameText(frames[i]) + "\n";
    return text;
}

} // namespace nthost
