// Exceptions: the guard chain, raises, and the fault handler that turns a bad address into one. A thread's chain is its
// own; nothing here locks. The handler runs on the faulting thread's stack, because a raise leaves it with longjmp.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ucontext.h>

#include "check/fatal.h"
#include "check/stack.h"
#include "ke/exceptions.h"
#include "ke/thread.h"
#include <nthost/calls.h>
#include <nthost/debug.h>

namespace nthost::ke {

void JumpToGuard(_ETHREAD* thread, PNT_GUARD guard, NTSTATUS code)
{
    // The guard comes off the chain before the jump, so that a raise in its handler goes to the next one.
    thread->Guard = guard->Outer;
    thread->PreviousMode = guard->PreviousMode;
    thread->CurrentIrp = static_cast<PIRP>(guard->CurrentIrp);
    thread->Calls = static_cast<DriverCallRecord*>(guard->Calls);
    guard->Code = code;
    longjmp(guard->Context, 1);
}

namespace {

std::atomic<const ExceptionHooks*> g_exceptionHooks;

constexpr size_t MaximumHooks = 8;
std::atomic<FaultHook> g_hooks[MaximumHooks];

struct sigaction g_previousSegv, g_previousBus;

const ExceptionHooks* WantedHooks()
{
    const ExceptionHooks* const hooks = g_exceptionHooks.load(std::memory_order_acquire);
    return hooks && hooks->Wanted() ? hooks : nullptr;
}

// For who watches the innermost guard.
void Note(const _ETHREAD* thread, const Exception& exception)
{
    ExceptionNote* const note = thread->Guard ? ExceptionWatch::NoteOf(thread->Guard) : nullptr;
    if (!note) return;
    note->Code = exception.Code;
    note->IsFault = exception.Fault != nullptr;
    note->IsWrite = exception.Parameters[0] == 1;
    note->Address = reinterpret_cast<const void*>(exception.Parameters[1]);
    note->Stack = CurrentStackText();
}

// Returns if nobody handles the exception.
void Deliver(_ETHREAD* thread, const Exception& exception)
{
    Note(thread, exception);
    if (const ExceptionHooks* hooks = WantedHooks())
        hooks->Dispatch(exception);
    else if (thread->Guard)
        JumpToGuard(thread, thread->Guard, exception.Code);
}

// A hook that knows the address may still leave it to another.
NTSTATUS AskHooks(void* address, bool write)
{
    NTSTATUS answer = STATUS_NOT_MAPPED_VIEW;
    for (const std::atomic<FaultHook>& slot : g_hooks) {
        const FaultHook hook = slot.load(std::memory_order_acquire);
        if (!hook) break;
        const NTSTATUS status = hook(address, write);
        if (NT_SUCCESS(status)) return status;
        if (status != STATUS_NOT_MAPPED_VIEW) answer = status;
    }
    return answer;
}

bool IsWrite(const ucontext_t* context)
{
#if defined(__x86_64__)
    return context->uc_mcontext.gregs[REG_ERR] & 2;
#else
    (void)context;
    return false;
#endif
}

void* ProgramCounter(const ucontext_t* context)
{
#if defined(__x86_64__)
    return reinterpret_cast<void*>(context->uc_mcontext.gregs[REG_RIP]);
#else
    (void)context;
    return nullptr;
#endif
}

// Not ours: what was installed before gets it, by being called or by letting the instruction fault again.
void PassOn(int signal, siginfo_t* info, void* context)
{
    const struct sigaction& previous = signal == SIGBUS ? g_previousBus : g_previousSegv;
    if (previous.sa_flags & SA_SIGINFO) return previous.sa_sigaction(signal, info, context);
    if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) return previous.sa_handler(signal);
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    sigaction(signal, &standard, nullptr);
    // A signal that somebody sent does not come again by itself.
    if (info->si_code <= 0) raise(signal);
}

// A privileged instruction faults without an address, an access to the kernel's half with one that no process can map.
bool Emulated(const siginfo_t* info, ucontext_t* context)
{
    if (info->si_code != SI_KERNEL && reinterpret_cast<intptr_t>(info->si_addr) >= 0) return false;
    const ExceptionHooks* const hooks = WantedHooks();
    return hooks && hooks->Emulate(context, info->si_addr);
}

void OnFault(int signal, siginfo_t* info, void* frame)
{
    const int error = errno;
    auto* const context = static_cast<ucontext_t*>(frame);
    const bool write = IsWrite(context);
    _ETHREAD* const thread = ke::CurrentThreadOrNull();
    if (!thread || info->si_code <= 0) return PassOn(signal, info, frame);
    if (Emulated(info, context)) return;

    // A hook may take long and fault itself, and a jump to a guard never comes back: whatever mask the handler was
    // entered with (sanitizers block everything) ends here.
    pthread_sigmask(SIG_SETMASK, &context->uc_sigmask, nullptr);
    const NTSTATUS fault = AskHooks(info->si_addr, write);
    if (NT_SUCCESS(fault)) {
        errno = error;
        return;
    }
    const NTSTATUS code =
        fault == STATUS_IN_PAGE_ERROR || signal == SIGBUS ? STATUS_IN_PAGE_ERROR : STATUS_ACCESS_VIOLATION;
    Deliver(thread, {code, 2, {write, reinterpret_cast<ULONG64>(info->si_addr)}, context});
    Fatal("fault outside of any guard: %s of address %p at %s, %s", write ? "write" : "read", info->si_addr,
          FrameText(static_cast<char*>(ProgramCounter(context)) + 1).c_str(), StatusName(code).c_str());
}

void Install(int signal, struct sigaction* previous)
{
    struct sigaction action {};
    action.sa_sigaction = OnFault;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    sigemptyset(&action.sa_mask);
    sigaction(signal, &action, previous);
}

} // namespace

void AddFaultHook(FaultHook hook)
{
    for (std::atomic<FaultHook>& slot : g_hooks) {
        FaultHook free = nullptr;
        if (slot.compare_exchange_strong(free, hook) || free == hook) return;
    }
    Fatal("no room for another fault hook");
}

void SetExceptionHooks(const ExceptionHooks* hooks) { g_exceptionHooks.store(hooks, std::memory_order_release); }

void TakeFaults()
{
    Install(SIGSEGV, &g_previousSegv);
    Install(SIGBUS, &g_previousBus);
}

void ReturnFaults()
{
    sigaction(SIGSEGV, &g_previousSegv, nullptr);
    sigaction(SIGBUS, &g_previousBus, nullptr);
}

} // namespace nthost::ke

using nthost::ke::CurrentThread;

void NtGuardPush(PNT_GUARD guard)
{
    _ETHREAD* const thread = CurrentThread();
    guard->Outer = thread->Guard;
    guard->Code = STATUS_SUCCESS;
    guard->Frame = __builtin_frame_address(0);
    guard->Calls = thread->Calls;
    guard->PreviousMode = thread->PreviousMode;
    guard->CurrentIrp = thread->CurrentIrp;
    thread->Guard = guard;
}

void NtGuardLeave(PNT_GUARD guard)
{
    _ETHREAD* const thread = CurrentThread();
    if (thread->Guard != guard) nthost::Fatal("guard %p left, but %p is the innermost", guard, thread->Guard);
    thread->Guard = guard->Outer;
}

VOID NTAPI ExRaiseStatus(NTSTATUS Status)
{
    _ETHREAD* const thread = CurrentThread();
    nthost::ke::Deliver(thread, {Status, 0, {}, nullptr});
    nthost::Fatal("%s raised outside of any guard", nthost::StatusName(Status).c_str());
}

VOID NTAPI ExRaiseAccessViolation(VOID) { ExRaiseStatus(STATUS_ACCESS_VIOLATION); }

VOID NTAPI ExRaiseDatatypeMisalignment(VOID) { ExRaiseStatus(STATUS_DATATYPE_MISALIGNMENT); }
