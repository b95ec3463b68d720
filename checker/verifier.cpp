// The thunks around each operation. The verifier's own objects stand outside of the guard that an exception goes to.
#include "checker/verifier.h"

#include <cstring>
#include <exception>
#include <tuple>
#include <utility>
#include <vector>

#include <nthost/calls.h>
#include <nthost/sections.h>

#include "lent.h"
#include "rules.h"
#include "watchdog.h"

namespace checker {

namespace {

thread_local Verifier::Running* t_running;
thread_local std::string t_lastCall, t_lastOutcome;

bool IsStatus(NTSTATUS status)
{
    const auto bits = static_cast<uint32_t>(status);
    if (bits >> 30 == 3) return (bits & 0x3f000000) == 0;
    return bits == 0 || bits >= 0x100;
}

// What ended a call before it returned.
struct Ending {
    nthost::ExceptionNote Exception;
    bool Raised = false;
    std::string Thrown;
};

template <typename Body>
[[gnu::noinline]] void RunContained(const Body& body, Ending* ending)
{
    NT_GUARD guard;
    const nthost::ExceptionWatch watch(&guard, &ending->Exception);
    if (!NtGuardEnter(&guard)) {
        ending->Raised = true;
        ending->Exception.Code = guard.Code;
        return;
    }
    try {
        body();
    } catch (const std::exception& thrown) {
        ending->Thrown = thrown.what();
        if (ending->Thrown.empty()) ending->Thrown = "an exception";
    } catch (...) {
        ending->Thrown = "something that is no std::exception";
    }
    NtGuardLeave(&guard);
}

std::string ExceptionText(const nthost::ExceptionNote& note)
{
    std::string text = nthost::StatusName(note.Code);
    if (note.IsFault) {
        char address[64];
        std::snprintf(address, sizeof address, ", %s of address %p", note.IsWrite ? "write" : "read", note.Address);
        text += address;
    }
    return text + (note.Stack.empty() ? "" : "\n" + note.Stack);
}

// The caller's memory, whose faults are the caller's.
struct Buffer {
    const void* Begin = nullptr;
    ULONG Length = 0;
    bool Has(const void* address) const
    {
        return Begin && address >= Begin && address < static_cast<const char*>(Begin) + Length;
    }
};

template <typename... Args>
Buffer BufferOf(Args...)
{
    return {};
}
Buffer BufferOf(PluginFd, LONGLONG, ULONG* length, void* buffer) { return {buffer, *length}; }
Buffer BufferOf(PluginFd, LONGLONG, ULONG* length, const void* buffer) { return {buffer, *length}; }

// What a Write is given, to be compared; not when it cannot be read.
std::vector<char> CopyOf(const Buffer& buffer)
{
    std::vector<char> copy(buffer.Length);
    if (!NT_SUCCESS(nthost::GuardedCopy(copy.data(), buffer.Begin, buffer.Length))) copy.clear();
    return copy;
}

class CallChecks {
public:
    CallChecks(Verifier* owner, const char* name, std::string arguments)
        : owner_(owner), running_{arguments.empty() ? name : name + (" " + arguments)},
          before_(nthost::CaptureThreadState())
    {
        owner_->Begin(&running_);
    }
    ~CallChecks() { owner_->End(&running_); }
    CallChecks(const CallChecks&) = delete;
    CallChecks& operator=(const CallChecks&) = delete;

    // The status that the driver gets.
    NTSTATUS Judge(const Ending& ending, NTSTATUS status, const Buffer& buffer, bool isListing)
    {
        if (ending.Raised) status = JudgeException(ending.Exception, buffer);
        if (!ending.Thrown.empty()) {
            Break("call.no-throw", ending.Thrown);
            status = STATUS_ACCESS_VIOLATION;
        }
        CheckThread();
        if (status == STATUS_PENDING) {
            Break("call.not-pending", nthost::StatusName(status));
            status = STATUS_UNSUCCESSFUL;
        } else if (!IsStatus(status) || IsBadWarning(status, isListing)) {
            Break("call.status", nthost::StatusName(status));
            status = STATUS_UNSUCCESSFUL;
        }
        running_.Outcome = nthost::StatusName(status);
        return status;
    }
    void Break(const char* property, const std::string& got) { owner_->Break(property, running_.Text, got); }
    const std::string& Text() const { return running_.Text; }

private:
    static bool IsBadWarning(NTSTATUS status, bool isListing)
    {
        return static_cast<uint32_t>(status) >> 30 == 2 && !(isListing && status == STATUS_NO_MORE_FILES);
    }

    NTSTATUS JudgeException(const nthost::ExceptionNote& note, const Buffer& buffer)
    {
        if (note.IsFault && buffer.Has(note.Address)) return note.Code;
        Break(note.IsFault && LentBytes::WasLent(note.Address) ? "call.arguments-not-kept" : "call.no-exception",
              ExceptionText(note));
        return STATUS_ACCESS_VIOLATION;
    }

    void CheckThread()
    {
        const nthost::ThreadState after = nthost::CaptureThreadState();
        std::string got;
        const auto compare = [&](const char* what, uint64_t before, uint64_t now) {
            if (before == now) return;
            got += (got.empty() ? "" : "; ") + std::string(what) + " " + std::to_string(before) + " before, " +
                   std::to_string(now) + " after";
        };
        compare("IRQL", before_.Irql, after.Irql);
        compare("critical regions", before_.ApcDisable, after.ApcDisable);
        compare("guarded regions", before_.GuardedRegions, after.GuardedRegions);
        compare("top-level request", reinterpret_cast<uintptr_t>(before_.TopLevelIrp),
                reinterpret_cast<uintptr_t>(after.TopLevelIrp));
        compare("locks", before_.HeldCount, after.HeldCount);
        if (after.HeldCount > before_.HeldCount) got += ":" + nthost::HeldLocksText();
        if (got.empty()) return;
        nthost::RestoreThreadState(before_);
        Break("call.thread-state", got);
    }

    Verifier* const owner_;
    Verifier::Running running_;
    const nthost::ThreadState before_;
};

template <auto Slot, typename Function>
struct Thunk;

template <auto Slot, typename... Args>
struct Thunk<Slot, NTSTATUS(NTAPI*)(void*, PKEVENT, Args...)> {
    static constexpr bool IsRead = std::is_same_v<decltype(Slot), PluginReadFn PluginOps::*>;
    static constexpr bool IsWrite = std::is_same_v<decltype(Slot), PluginWriteFn PluginOps::*>;
    static constexpr bool IsListing = std::is_same_v<decltype(Slot), PluginReadDirEntryFn PluginOps::*>;

    static NTSTATUS NTAPI Call(void* context, PKEVENT cancel, Args... args)
    {
        auto* const owner = static_cast<Verifier*>(context);
        CallChecks checks(owner, layer::Named<Slot>::Name, layer::DescribeAll(args...));
        Rules<Slot>::Before(args...);
        const Buffer buffer = BufferOf(args...);
        std::vector<char> data;
        if constexpr (IsWrite) data = CopyOf(buffer);

        NTSTATUS status = STATUS_SUCCESS;
        {
            std::tuple<Lent<Args>...> lent(args...);
            Ending ending;
            RunContained(
                [&] {
                    status = std::apply(
                        [&](auto&... each) {
                            return (owner->Inner()->*Slot)(owner->Inner()->PluginContext, cancel, each.Get()...);
                        },
                        lent);
                },
                &ending);
            status = checks.Judge(ending, status, buffer, IsListing);
            if (!std::apply([](auto&... each) { return (each.Unchanged() && ...); }, lent))
                checks.Break("call.arguments-unchanged", "the text was changed");
        }
        if (!data.empty()) {
            const std::vector<char> after = CopyOf(buffer);
            if (!after.empty() && after != data) checks.Break("call.arguments-unchanged", "the data was changed");
        }
        const Verified verified = {*owner, checks.Text(), status};
        Rules<Slot>::After(verified, args...);
        if constexpr (IsRead || IsWrite)
            CheckCount(verified, IsRead ? "read.count" : "write.count", buffer.Length, std::get<2>(std::tie(args...)));
        return status;
    }
};

template <auto Slot>
void Fill(PluginOps& table, const PluginOps& inner)
{
    using Function = std::remove_cvref_t<decltype(inner.*Slot)>;
    if (inner.*Slot) table.*Slot = Thunk<Slot, Function>::Call;
}

} // namespace

Verifier::Verifier(const PluginOps* inner, BreachSink sink, unsigned stuckAfterMilliseconds)
    : inner_(inner), sink_(std::move(sink)), watchdog_(std::make_unique<Watchdog>(this, stuckAfterMilliseconds))
{
    table_.Version = inner->Version;
    table_.PluginContext = this;
    table_.OnMounted = OnMounted;
    table_.OnUnmounted = OnUnmounted;
#define FILL_OPERATION(name) Fill<&PluginOps::name>(table_, *inner);
    GVND_FOR_EACH_OPERATION(FILL_OPERATION)
}

Verifier::~Verifier() = default;

std::string Verifier::LastCall() { return t_running ? t_running->Text : t_lastCall; }
std::string Verifier::LastOutcome() { return t_lastOutcome; }
bool Verifier::InOperation() { return t_running != nullptr; }

void Verifier::Break(const char* property, const std::string& call, const std::string& got)
{
    broken_ = true;
    sink_({property, call, got});
}

void Verifier::Begin(Running* call)
{
    call->Outer = std::exchange(t_running, call);
    if (page_) {
        const size_t length = std::min(call->Text.size(), kPageSize - 1);
        std::memcpy(page_, call->Text.data(), length);
        page_[length] = 0;
    }
    if (unmounted_) Break("mount.works", call->Text, "is called behind OnUnmounted");
    watchdog_->Add(call);
}

void Verifier::End(Running* call)
{
    watchdog_->Remove(call);
    t_running = call->Outer;
    t_lastCall = call->Text;
    t_lastOutcome = call->Outcome;
}

void Verifier::Opened(PluginFd fd, const std::string& call)
{
    std::string other;
    {
        const std::lock_guard lock(mutex_);
        const auto [at, isNew] = handles_.emplace(fd, call);
        if (isNew) return;
        other = at->second;
    }
    Break("handle.unique", call, layer::Describe(fd) + ", which is the handle of " + other);
}

void Verifier::Closed(PluginFd fd)
{
    const std::lock_guard lock(mutex_);
    handles_.erase(fd);
}

void Verifier::Notify(const char* name, PluginNotifyFn notification)
{
    CallChecks checks(this, name, {});
    Ending ending;
    if (notification) RunContained([&] { notification(inner_->PluginContext); }, &ending);
    checks.Judge(ending, STATUS_SUCCESS, {}, false);
}

void NTAPI Verifier::OnMounted(void* context)
{
    auto* const owner = static_cast<Verifier*>(context);
    owner->Notify("OnMounted", owner->inner_->OnMounted);
}

void NTAPI Verifier::OnUnmounted(void* context)
{
    auto* const owner = static_cast<Verifier*>(context);
    owner->Notify("OnUnmounted", owner->inner_->OnUnmounted);
    ++owner->unmounted_;
}

} // namespace checker
