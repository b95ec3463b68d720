// The layer's thunks are one template over the slot; only the description of the arguments differs by type.

#include "layer/layer.h"

#include <string_view>
#include <tuple>

#include <nthost/recorder.h>

#include "layer/operations.h"

namespace layer {
namespace {

// A fault that no compiler can see coming.
void TouchBadAddress()
{
    volatile uintptr_t address = 16;
    *reinterpret_cast<volatile char*>(address) = 1;
}

// What a read or a write has moved, which is told where its length was given.
template <auto Slot, typename... Arguments>
uint64_t BytesMoved([[maybe_unused]] Arguments... arguments)
{
    constexpr std::string_view name = Named<Slot>::Name;
    if constexpr (name == "Read" || name == "Write")
        return *std::get<ULONG*>(std::tuple<Arguments...>(arguments...));
    else
        return 0;
}

template <auto Slot, typename Function>
struct Thunk;

template <auto Slot, typename... Arguments>
struct Thunk<Slot, NTSTATUS(NTAPI*)(void*, PKEVENT, Arguments...)> {
    static inline const nthost::SpanName spanName = nthost::NameSpans(nthost::SpanKind::Call, Named<Slot>::Name);

    static NTSTATUS NTAPI Call(void* context, PKEVENT cancel, Arguments... arguments)
    {
        auto* const layer = static_cast<PluginLayer*>(context);
        const size_t note =
            layer->Noting() ? layer->Begin(Named<Slot>::Name, DescribeAll(arguments...)) : layer->CountOne();
        // From here on no object of this frame needs a destructor: an exception may jump over it.
        NTSTATUS status;
        const uint64_t begun = nthost::SpanClock();
        if (!layer->Intercept(Named<Slot>::Name, cancel, &status)) {
            status = (layer->Inner()->*Slot)(layer->Inner()->PluginContext, cancel, arguments...);
        }
        nthost::NoteCall(spanName, begun, status, NT_SUCCESS(status) ? BytesMoved<Slot>(arguments...) : 0);
        layer->End(note, status);
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

PluginLayer::PluginLayer(const PluginOps* inner) : inner_(inner)
{
    KeInitializeEvent(&unmountedEvent_, NotificationEvent, FALSE);
    table_.Version = inner->Version;
    table_.PluginContext = this;
    table_.OnMounted = OnMounted;
    table_.OnUnmounted = OnUnmounted;
#define FILL_OPERATION(name) Fill<&PluginOps::name>(table_, *inner);
    GVND_FOR_EACH_OPERATION(FILL_OPERATION)
}

void NTAPI PluginLayer::OnMounted(void* context)
{
    auto* const layer = static_cast<PluginLayer*>(context);
    if (layer->inner_->OnMounted) layer->inner_->OnMounted(layer->inner_->PluginContext);
    const std::lock_guard lock(layer->mutex_);
    ++layer->mounted_;
}

void NTAPI PluginLayer::OnUnmounted(void* context)
{
    auto* const layer = static_cast<PluginLayer*>(context);
    if (layer->inner_->OnUnmounted) layer->inner_->OnUnmounted(layer->inner_->PluginContext);
    {
        const std::lock_guard lock(layer->mutex_);
        ++layer->unmounted_;
    }
    // Whoever waits may end the layer at once.
    KeSetEvent(&layer->unmountedEvent_, IO_NO_INCREMENT, FALSE);
}

unsigned PluginLayer::Mounted() const
{
    const std::lock_guard lock(mutex_);
    return mounted_;
}

unsigned PluginLayer::Unmounted() const
{
    const std::lock_guard lock(mutex_);
    return unmounted_;
}

void PluginLayer::WaitUntilUnmounted()
{
    (void)KeWaitForSingleObject(&unmountedEvent_, Executive, KernelMode, FALSE, nullptr);
}

std::vector<PluginCall> PluginLayer::Calls() const
{
    const std::lock_guard lock(mutex_);
    return calls_;
}

std::vector<std::string> PluginLayer::Texts() const
{
    std::vector<std::string> texts;
    for (const PluginCall& call : Calls()) texts.push_back(call.Text());
    return texts;
}

size_t PluginLayer::Count(const std::string& operation) const
{
    size_t count = 0;
    for (const PluginCall& call : Calls()) count += call.Operation == operation;
    return count;
}

void PluginLayer::Clear()
{
    const std::lock_guard lock(mutex_);
    cleared_ += calls_.size();
    calls_.clear();
}

void PluginLayer::Fail(const std::string& operation, NTSTATUS status, unsigned nth)
{
    const std::lock_guard lock(mutex_);
    plans_.emplace(operation, Plan{nth, [status](PKEVENT, NTSTATUS* result) {
                                       *result = status;
                                       return true;
                                   }});
}

void PluginLayer::Raise(const std::string& operation, NTSTATUS status, unsigned nth)
{
    const std::lock_guard lock(mutex_);
    plans_.emplace(operation, Plan{nth, [status](PKEVENT, NTSTATUS*) -> bool { ExRaiseStatus(status); }});
}

void PluginLayer::Fault(const std::string& operation, unsigned nth)
{
    const std::lock_guard lock(mutex_);
    plans_.emplace(operation, Plan{nth, [](PKEVENT, NTSTATUS*) {
                                       TouchBadAddress();
                                       return false;
                                   }});
}

void PluginLayer::Before(const std::string& operation, std::function<void(PKEVENT)> action, unsigned nth)
{
    const std::lock_guard lock(mutex_);
    plans_.emplace(operation, Plan{nth, [action = std::move(action)](PKEVENT cancel, NTSTATUS*) {
                                       action(cancel);
                                       return false;
                                   }});
}

bool PluginLayer::Intercept(const char* operation, PKEVENT cancel, NTSTATUS* status)
{
    std::shared_ptr<Gate> gate;
    // Outlives an exception that passes this frame: what it owns is held by the layer.
    const std::function<bool(PKEVENT, NTSTATUS*)>* action = nullptr;
    {
        const std::lock_guard lock(mutex_);
        if (const auto found = gates_.find(operation); found != gates_.end()) gate = found->second;
        for (auto [plan, end] = plans_.equal_range(operation); plan != end; ++plan) {
            if (plan->second.CountDown > 0 && --plan->second.CountDown == 0) action = &plan->second.Action;
        }
    }
    if (gate) gate->Pass();
    gate.reset();
    return action && (*action)(cancel, status);
}

size_t PluginLayer::CountOne()
{
    ++total_;
    return kNoNote;
}

size_t PluginLayer::Begin(const char* operation, std::string arguments)
{
    ++total_;
    const std::lock_guard lock(mutex_);
    calls_.push_back({operation, std::move(arguments), STATUS_PENDING, std::chrono::steady_clock::now()});
    return cleared_ + calls_.size() - 1;
}

void PluginLayer::End(size_t note, NTSTATUS status)
{
    if (note == kNoNote) return;
    const auto now = std::chrono::steady_clock::now();
    const std::lock_guard lock(mutex_);
    if (note < cleared_) return;
    PluginCall& call = calls_[note - cleared_];
    call.Status = status;
    call.Took = now - call.Begun;
}

std::shared_ptr<PluginLayer::Gate> PluginLayer::CloseGate(const std::string& operation)
{
    auto gate = std::make_shared<Gate>();
    const std::lock_guard lock(mutex_);
    gates_[operation] = gate;
    return gate;
}

void PluginLayer::RemoveGate(const std::string& operation)
{
    const std::lock_guard lock(mutex_);
    gates_.erase(operation);
}

void PluginLayer::Gate::WaitForArrivals(unsigned count)
{
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return arrivals_ >= count; });
}

void PluginLayer::Gate::Open()
{
    const std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
}

void PluginLayer::Gate::Pass()
{
    std::unique_lock lock(mutex_);
    ++arrivals_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
}

} // namespace layer
