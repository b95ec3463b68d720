// DbgPrint and its listener, and statuses by name. One mutex guards which listener is installed and how many calls are
// in it; it is never held while one runs. Without a listener DbgPrint is a load and a branch.

#include <nthost/check.h>
#include <nthost/debug.h>

#include <atomic>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <utility>

#include "rtl/format.h"

namespace nthost {
namespace {

struct Listener {
    DebugSink Sink;
    unsigned Calls = 0; // in progress
};

struct Debug {
    std::mutex Lock;
    std::condition_variable Idle; // a listener's last call has ended
    std::shared_ptr<Listener> Current;
};

std::atomic<bool> wanted{false};

// Never destroyed: threads may print while the process exits.
Debug& State()
{
    static Debug& state = *new Debug;
    return state;
}

std::shared_ptr<Listener> Enter(Debug& state)
{
    std::lock_guard guard(state.Lock);
    if (state.Current) ++state.Current->Calls;
    return state.Current;
}

void Leave(Debug& state, Listener& listener)
{
    std::lock_guard guard(state.Lock);
    if (--listener.Calls == 0) state.Idle.notify_all();
}

// The formats are read before the listener is entered: a fault on an argument leaves nothing behind.
void Print(const char* format, NT_VA_LIST arguments)
{
    char text[rtl::kDebugTextBytes];
    const size_t bytes = rtl::FormatDebug(text, sizeof(text), format, arguments);
    Debug& state = State();
    const std::shared_ptr<Listener> listener = Enter(state);
    if (!listener) return;
    listener->Sink({text, bytes});
    Leave(state, *listener);
}

struct NamedStatus {
    NTSTATUS Status;
    const char* Name;
};

constexpr NamedStatus kStatuses[] = {
#define X(name) {name, #name},
#include "rtl/status_names.inc"
#undef X
};

} // namespace

void SetDebugSink(DebugSink sink)
{
    auto next = sink ? std::make_shared<Listener>(Listener{std::move(sink)}) : nullptr;
    Debug& state = State();
    std::unique_lock lock(state.Lock);
    wanted.store(next != nullptr, std::memory_order_relaxed);
    state.Current.swap(next);
    if (next) state.Idle.wait(lock, [&] { return next->Calls == 0; });
}

bool DebugOutputWanted() { return wanted.load(std::memory_order_relaxed); }

std::string StatusName(NTSTATUS status)
{
    for (const NamedStatus& known : kStatuses)
        if (known.Status == status) return known.Name;
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08x", static_cast<unsigned>(status));
    return text;
}

} // namespace nthost

ULONG NTAPI DbgPrint(PCSTR Format, ...)
{
    if (!nthost::DebugOutputWanted()) return STATUS_SUCCESS;
    NT_VA_LIST arguments;
    NT_VA_START(arguments, Format);
    nthost::Print(Format, arguments);
    NT_VA_END(arguments);
    return STATUS_SUCCESS;
}

ULONG NTAPI DbgPrintEx(ULONG, ULONG, PCSTR Format, ...)
{
    if (!nthost::DebugOutputWanted()) return STATUS_SUCCESS;
    NT_VA_LIST arguments;
    NT_VA_START(arguments, Format);
    nthost::Print(Format, arguments);
    NT_VA_END(arguments);
    return STATUS_SUCCESS;
}

VOID NTAPI RtlAssert(PVOID FailedAssertion, PVOID FileName, ULONG LineNumber, PSTR Message)
{
    char text[512];
    std::snprintf(text, sizeof text, "%s at %s:%u%s%s", static_cast<const char*>(FailedAssertion),
                  static_cast<const char*>(FileName), LineNumber, Message ? ": " : "", Message ? Message : "");
    nthost::ReportFinding("assertion-failed", text);
}
