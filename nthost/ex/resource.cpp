// Executive resources. The whole ownership is one atomic word in the structure's reserved field; how often the current
// thread holds it, and in which mode, stands in the thread's record (ke/held.h). Uncontended, an acquisition and a
// release are one atomic operation each. Waiters queue under the structure's spin-lock word and get the resource handed
// over: who releases it last decides, so nobody overtakes them.
#include <nthost/check.h>
#include <nthost/faults.h>

#include "check/fatal.h"
#include "ke/lock_order.h"
#include "check/text.h"
#include "ke/live.h"
#include "ke/held.h"
#include "ke/recorder.h"
#include "ke/schedule.h"
#include "ke/wait.h"
#include "ke/word_lock.h"

using namespace nthost;

namespace {

// Bits 0-19 acquisitions, bit 20 somebody waits, from bit 21 the exclusive owner's record without its 4 zero bits.
// With the owner in the word there is no state in which an exclusive resource has another or no owner.
constexpr uint64_t kCount = 0xfffff;
constexpr uint64_t kWaiters = 1 << 20;
constexpr unsigned kOwnerShift = 21;
constexpr uint64_t kPoison = 0xdddddddddddddddd;

enum class Request { Shared, SharedStarveExclusive, Exclusive };

// On the waiter's stack. Shared waiters form a stack (all are released together), exclusive ones a ring whose last
// entry the resource points to.
struct Waiter {
    Waiter* Next;
    _ETHREAD* Thread;
};

std::atomic<uint64_t>& StateOf(PERESOURCE resource)
{
    return *reinterpret_cast<std::atomic<uint64_t>*>(&resource->Reserved2);
}

std::atomic<uint32_t>& LockOf(PERESOURCE resource)
{
    return *reinterpret_cast<std::atomic<uint32_t>*>(&resource->SpinLock);
}

uint64_t OwnedBy(const _ETHREAD* thread) { return (reinterpret_cast<uint64_t>(thread) >> 4) << kOwnerShift; }
uint64_t OwnerBits(uint64_t state) { return state >> kOwnerShift << kOwnerShift; }
uint64_t Count(uint64_t state) { return state & kCount; }

class Locked {
public:
    explicit Locked(PERESOURCE resource) : word_(LockOf(resource)) { ke::LockWord(word_); }
    ~Locked() { ke::UnlockWord(word_); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

private:
    std::atomic<uint32_t>& word_;
};

// The state after the request was granted, or 0 if it has to wait. `holds`: the thread owns it already.
uint64_t Granted(uint64_t state, const _ETHREAD* thread, Request request, bool holds)
{
    const uint64_t owner = OwnerBits(state);
    if (Count(state) == kCount) Fatal("a resource is acquired more than %u times", static_cast<unsigned>(kCount));
    if (owner) return owner == OwnedBy(thread) ? state + 1 : 0;
    if (request == Request::Exclusive) return state == 0 ? OwnedBy(thread) + 1 : 0;
    const bool heldBack = (state & kWaiters) && !(holds || request == Request::SharedStarveExclusive);
    return heldBack || (Count(state) == 0 && (state & kWaiters)) ? 0 : state + 1;
}

bool TryAcquire(PERESOURCE resource, _ETHREAD* thread, Request request)
{
    std::atomic<uint64_t>& state = StateOf(resource);
    uint64_t seen = state.load(std::memory_order_relaxed);
    while (const uint64_t granted = Granted(seen, thread, request, ke::FindHeld(thread, resource)))
        if (state.compare_exchange_weak(seen, granted, std::memory_order_acq_rel)) return true;
    return false;
}

void Enqueue(PERESOURCE resource, Waiter& waiter, Request request)
{
    if (request != Request::Exclusive) {
        waiter.Next = static_cast<Waiter*>(resource->SharedWaiters);
        resource->SharedWaiters = &waiter;
        __atomic_add_fetch(&resource->NumberOfSharedWaiters, 1, __ATOMIC_RELAXED);
        return;
    }
    Waiter* const last = static_cast<Waiter*>(resource->ExclusiveWaiters);
    waiter.Next = last ? last->Next : &waiter;
    if (last) last->Next = &waiter;
    resource->ExclusiveWaiters = &waiter;
    __atomic_add_fetch(&resource->NumberOfExclusiveWaiters, 1, __ATOMIC_RELAXED);
}

Waiter* TakeSharedWaiters(PERESOURCE resource)
{
    Waiter* const all = static_cast<Waiter*>(resource->SharedWaiters);
    resource->SharedWaiters = nullptr;
    __atomic_store_n(&resource->NumberOfSharedWaiters, 0, __ATOMIC_RELAXED);
    return all;
}

Waiter* TakeExclusiveWaiter(PERESOURCE resource)
{
    Waiter* const last = static_cast<Waiter*>(resource->ExclusiveWaiters);
    Waiter* const first = last->Next;
    last->Next = first->Next;
    if (first == last) resource->ExclusiveWaiters = nullptr;
    first->Next = nullptr;
    __atomic_sub_fetch(&resource->NumberOfExclusiveWaiters, 1, __ATOMIC_RELAXED);
    return first;
}

// Waits until a release hands the resource over.
void AcquireSlowly(PERESOURCE resource, _ETHREAD* thread, Request request)
{
    Waiter waiter{nullptr, thread};
    {
        Locked lock(resource);
        ++resource->ContentionCount;
        std::atomic<uint64_t>& state = StateOf(resource);
        uint64_t seen;
        do {
            if (TryAcquire(resource, thread, request)) return;
            seen = state.load(std::memory_order_relaxed);
            // Freed in between: not a state to wait in.
        } while (Granted(seen, thread, request, ke::FindHeld(thread, resource)) ||
                 !state.compare_exchange_weak(seen, seen | kWaiters, std::memory_order_acq_rel));
        ke::ArmWake(thread);
        Enqueue(resource, waiter, request);
    }
    ke::NoteWaitFor("a resource", resource);
    const ke::RecordedWait recorded("a resource", resource);
    ke::AwaitWake(thread);
}

void WakeAll(Waiter* waiters)
{
    while (waiters) {
        Waiter* const next = waiters->Next;
        ke::Wake(waiters->Thread);
        waiters = next;
    }
}

uint64_t WaitersBit(bool any) { return any ? kWaiters : 0; }

// The state that gives the free resource to waiters. After an exclusive owner the shared ones come first, after shared
// owners an exclusive one, so that neither kind starves.
uint64_t HandedOver(PERESOURCE resource, bool toShared)
{
    if (toShared) return resource->NumberOfSharedWaiters | WaitersBit(resource->ExclusiveWaiters);
    const Waiter* const last = static_cast<Waiter*>(resource->ExclusiveWaiters);
    return (OwnedBy(last->Next->Thread) + 1) | WaitersBit(last->Next != last || resource->SharedWaiters);
}

// One acquisition less, with waiters about.
void DropSlowly(PERESOURCE resource)
{
    Waiter* released = nullptr;
    {
        Locked lock(resource);
        std::atomic<uint64_t>& state = StateOf(resource);
        uint64_t seen = state.load(std::memory_order_relaxed), next;
        bool toShared, handsOver;
        do {
            handsOver = Count(seen) == 1 && (seen & kWaiters);
            toShared = resource->SharedWaiters && (OwnerBits(seen) || !resource->ExclusiveWaiters);
            next = handsOver ? HandedOver(resource, toShared) : Count(seen) == 1 ? 0 : seen - 1;
        } while (!state.compare_exchange_weak(seen, next, std::memory_order_acq_rel));
        if (handsOver) released = toShared ? TakeSharedWaiters(resource) : TakeExclusiveWaiter(resource);
    }
    WakeAll(released);
}

void Drop(PERESOURCE resource)
{
    std::atomic<uint64_t>& state = StateOf(resource);
    uint64_t seen = state.load(std::memory_order_relaxed);
    while (!(Count(seen) == 1 && (seen & kWaiters)))
        if (state.compare_exchange_weak(seen, Count(seen) == 1 ? 0 : seen - 1, std::memory_order_acq_rel)) return;
    DropSlowly(resource);
}

void CheckAlive(PERESOURCE resource)
{
    if (StateOf(resource).load(std::memory_order_relaxed) == kPoison)
        FatalFinding("resource-used-after-delete", "resource " + HexText(resource));
}

void CheckAcquire(PERESOURCE resource, _ETHREAD* thread)
{
    CheckAlive(resource);
    if (thread->Irql > APC_LEVEL)
        ReportFinding("resource-above-apc-level", Format("resource %p at IRQL %u", resource, thread->Irql));
    if (!thread->IsSystemThread && thread->Irql < APC_LEVEL && !ke::AreApcsDisabled(thread))
        ReportFinding("resource-outside-critical-region",
                      "resource " + LockText(resource) + ": the thread could be suspended while it holds it");
}

// Who starves exclusive waiters passes them by.
BlockedBy BlockersOf(Request request)
{
    return request == Request::SharedStarveExclusive ? BlockedBy::ExclusiveOwner : BlockedBy::AnyOwner;
}

BOOLEAN Acquire(PERESOURCE resource, BOOLEAN wait, Request request, void* where)
{
    _ETHREAD* const thread = ke::CurrentThread();
    if (NTHOST_CHECKS) CheckAcquire(resource, thread);
    if (NTHOST_CHECKS && wait && !ke::FindHeld(thread, resource)) NoteLockOrder(thread, resource, BlockersOf(request));
    ke::SwitchPoint("a resource's acquisition");
    if (!TryAcquire(resource, thread, request)) {
        if (!wait) return FALSE;
        if (request == Request::Exclusive && ke::FindHeld(thread, resource))
            FatalFinding("resource-upgrade-deadlock",
                         "a shared owner of resource " + HexText(resource) + " waits for it exclusively");
        AcquireSlowly(resource, thread, request);
    }
    const ke::HoldMode mode = request == Request::Exclusive ? ke::HoldMode::Exclusive : ke::HoldMode::Shared;
    ke::NoteHeld(thread, resource, HeldLock::Kind::Resource, mode, where);
    return TRUE;
}

void NotOwned(PERESOURCE resource, const char* operation)
{
    const std::string detail = Format("%s of resource %p by or for a thread that does not own it", operation, resource);
    // Without the checks nothing else would tell, and the count would be wrong from here on.
    if (!NTHOST_CHECKS) Fatal("%s", detail.c_str());
    ReportFinding("resource-not-owner", detail);
}

void ReleaseOwn(PERESOURCE resource, _ETHREAD* thread)
{
    HeldLock* const held = ke::FindHeld(thread, resource);
    if (!held) return NotOwned(resource, "release");
    ke::NoteReleased(thread, held);
    Drop(resource);
    ke::SwitchPoint("a resource's release");
}

} // namespace

NTSTATUS NTAPI ExInitializeResourceLite(PERESOURCE Resource)
{
    if (FaultInjected("ExInitializeResourceLite")) return STATUS_INSUFFICIENT_RESOURCES;
    *Resource = {};
    InitializeListHead(&Resource->SystemResourcesList);
    if (NTHOST_CHECKS) ForgetLocksIn(Resource, sizeof(ERESOURCE));
    if (NTHOST_CHECKS) ke::NoteLiveObject(ke::LiveKind::Resource, Resource);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ExDeleteResourceLite(PERESOURCE Resource)
{
    if (!NTHOST_CHECKS) return STATUS_SUCCESS;
    CheckAlive(Resource);
    if (const uint64_t state = StateOf(Resource).load(); state)
        ReportFinding("resource-deleted-owned",
                      Format("resource %p is held %u times", Resource, static_cast<unsigned>(Count(state))));
    std::erase_if(ke::HeldBy(ke::CurrentThread()), [&](const HeldLock& held) { return held.Address == Resource; });
    ke::ForgetLiveObject(Resource);
    ForgetLocksIn(Resource, sizeof(ERESOURCE));
    RtlFillMemory(Resource, sizeof(ERESOURCE), 0xdd);
    return STATUS_SUCCESS;
}

BOOLEAN NTAPI ExAcquireResourceExclusiveLite(PERESOURCE Resource, BOOLEAN Wait)
{
    return Acquire(Resource, Wait, Request::Exclusive, __builtin_return_address(0));
}

BOOLEAN NTAPI ExAcquireResourceSharedLite(PERESOURCE Resource, BOOLEAN Wait)
{
    return Acquire(Resource, Wait, Request::Shared, __builtin_return_address(0));
}

BOOLEAN NTAPI ExAcquireSharedStarveExclusive(PERESOURCE Resource, BOOLEAN Wait)
{
    return Acquire(Resource, Wait, Request::SharedStarveExclusive, __builtin_return_address(0));
}

VOID FASTCALL ExReleaseResourceLite(PERESOURCE Resource) { ReleaseOwn(Resource, ke::CurrentThread()); }

VOID NTAPI ExReleaseResourceForThreadLite(PERESOURCE Resource, ERESOURCE_THREAD ResourceThreadId)
{
    auto* const owner = reinterpret_cast<_ETHREAD*>(ResourceThreadId);
    if (owner == ke::CurrentThread()) return ReleaseOwn(Resource, owner);
    const uint64_t state = StateOf(Resource).load();
    if (Count(state) == 0 || (OwnerBits(state) && OwnerBits(state) != OwnedBy(owner)))
        return NotOwned(Resource, "release");
    // Posted first: the owner must not take its record for ownership once the count is gone.
    ke::PostReleased(owner, Resource);
    Drop(Resource);
}

VOID NTAPI ExConvertExclusiveToSharedLite(PERESOURCE Resource)
{
    HeldLock* const held = ke::FindHeld(ke::CurrentThread(), Resource);
    if (!held || !held->Exclusive) return NotOwned(Resource, "conversion");
    held->Shared += held->Exclusive;
    held->Exclusive = 0;
    Waiter* released;
    {
        Locked lock(Resource);
        std::atomic<uint64_t>& state = StateOf(Resource);
        uint64_t seen = state.load(std::memory_order_relaxed), next;
        do next = (Count(seen) + Resource->NumberOfSharedWaiters) | WaitersBit(Resource->ExclusiveWaiters);
        while (!state.compare_exchange_weak(seen, next, std::memory_order_acq_rel));
        released = TakeSharedWaiters(Resource);
    }
    WakeAll(released);
}

BOOLEAN NTAPI ExIsResourceAcquiredExclusiveLite(PERESOURCE Resource)
{
    const HeldLock* const held = ke::FindHeld(ke::CurrentThread(), Resource);
    return held && held->Exclusive;
}

ULONG NTAPI ExIsResourceAcquiredSharedLite(PERESOURCE Resource)
{
    const HeldLock* const held = ke::FindHeld(ke::CurrentThread(), Resource);
    return held ? held->Shared + held->Exclusive : 0;
}

ULONG NTAPI ExGetExclusiveWaiterCount(PERESOURCE Resource)
{
    return __atomic_load_n(&Resource->NumberOfExclusiveWaiters, __ATOMIC_RELAXED);
}

ULONG NTAPI ExGetSharedWaiterCount(PERESOURCE Resource)
{
    return __atomic_load_n(&Resource->NumberOfSharedWaiters, __ATOMIC_RELAXED);
}
