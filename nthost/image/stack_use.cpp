// Stubs, the walk, and the record of the deepest stack so far, which has a lock of its own.
#include "image/stack_use.h"

#include <atomic>
#include <cstring>
#include <mutex>
#include <sys/mman.h>

#include "check/stack.h"
#include "check/text.h"
#include "image/unwind.h"
#include "ke/thread.h"
#include <nthost/check.h>
#include <nthost/image.h>

namespace nthost::image {

namespace {

constexpr size_t kStubSize = 32, kStubArea = 1 << 14;
// Of the 24 KiB. The other half is the kernel's own, and that of drivers above and below.
constexpr size_t kShare = 12 * 1024;

std::mutex g_lock;
std::atomic<size_t> g_bytes;
std::string g_stack; // under g_lock

// Bytes from the call of a kernel routine up to where the host entered image code.
size_t BytesOfImages(uint64_t returnAddress, uint64_t stackPointer, uint64_t framePointer)
{
    Context context;
    context.Rip = returnAddress;
    context.Gpr[Rsp] = stackPointer;
    context.Gpr[Rbp] = framePointer;
    ImageFrame frame;
    for (const Module* module; (module = FindModule(context.Rip)) && !module->Unloaded;)
        if (!StepImage(*module, context, &frame)) break;
    return context.Gpr[Rsp] - stackPointer;
}

void NoteDeepest(size_t bytes)
{
    const std::lock_guard hold(g_lock);
    if (bytes <= g_bytes.load(std::memory_order_relaxed)) return;
    g_bytes.store(bytes, std::memory_order_relaxed);
    g_stack = CurrentStackText();
}

// frame: the return address of the call, and above it the caller's frame.
extern "C" NTAPI __attribute__((used)) void NthostMeasureStack(const uint64_t* frame, uint64_t framePointer)
{
    _ETHREAD* const thread = ke::CurrentThreadOrNull();
    if (!thread) return;
    const size_t before = thread->Calls ? thread->Calls->ImageStack : 0;
    const size_t bytes = before + BytesOfImages(*frame, reinterpret_cast<uint64_t>(frame + 1), framePointer);
    thread->ImageStack = bytes;
    if (bytes <= g_bytes.load(std::memory_order_relaxed)) return;
    NoteDeepest(bytes);
    if (bytes > kShare)
        ReportFinding(
            "image-stack-deep",
            Format("%zu bytes of stack in frames of images; %zu is their share of a kernel stack", bytes, kShare));
}

// r11 is the routine. All registers of arguments stay; the stack is as the routine expects it.
__attribute__((naked)) void Probe()
{
    asm volatile("pushq %rcx\n\t"
                 "pushq %rdx\n\t"
                 "pushq %r8\n\t"
                 "pushq %r9\n\t"
                 "pushq %r11\n\t"
                 "subq $96, %rsp\n\t"
                 ".cfi_adjust_cfa_offset 136\n\t"
                 "movaps %xmm0, 32(%rsp)\n\t"
                 "movaps %xmm1, 48(%rsp)\n\t"
                 "movaps %xmm2, 64(%rsp)\n\t"
                 "movaps %xmm3, 80(%rsp)\n\t"
                 "leaq 136(%rsp), %rcx\n\t"
                 "movq %rbp, %rdx\n\t"
                 "call NthostMeasureStack\n\t"
                 "movaps 32(%rsp), %xmm0\n\t"
                 "movaps 48(%rsp), %xmm1\n\t"
                 "movaps 64(%rsp), %xmm2\n\t"
                 "movaps 80(%rsp), %xmm3\n\t"
                 "addq $96, %rsp\n\t"
                 ".cfi_adjust_cfa_offset -96\n\t"
                 "popq %r11\n\t"
                 "popq %r9\n\t"
                 "popq %r8\n\t"
                 "popq %rdx\n\t"
                 "popq %rcx\n\t"
                 "jmp *%r11");
}

// mov r11, routine; mov r10, Probe; jmp r10
void WriteStub(uint8_t* at, void* routine)
{
    void (*const probe)() = &Probe;
    memcpy(at, "\x49\xbb", 2), memcpy(at + 2, &routine, 8);
    memcpy(at + 10, "\x49\xba", 2), memcpy(at + 12, &probe, 8);
    memcpy(at + 20, "\x41\xff\xe2", 3);
}

} // namespace

void* MeasuredImport(Module* module, void* routine)
{
    if (!module->Stubs) {
        void* const area = mmap(nullptr, kStubArea, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (area == MAP_FAILED) return nullptr;
        module->Stubs = static_cast<uint8_t*>(area);
        module->StubCount = 0;
    }
    if ((module->StubCount + 1) * kStubSize > kStubArea) return routine;
    uint8_t* const stub = module->Stubs + kStubSize * module->StubCount++;
    WriteStub(stub, routine);
    return stub;
}

bool SealStubs(Module* module)
{
    return !module->Stubs || mprotect(module->Stubs, kStubArea, PROT_READ | PROT_EXEC) == 0;
}

void ReleaseStubs(Module* module)
{
    if (module->Stubs) munmap(module->Stubs, kStubArea);
    module->Stubs = nullptr;
}

} // namespace nthost::image

nthost::StackUse nthost::DeepestImageStack()
{
    const std::lock_guard hold(image::g_lock);
    return {image::g_bytes.load(std::memory_order_relaxed), image::g_stack};
}
