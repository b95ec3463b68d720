// Life of objects: creation, references, deletion, and the list of what lives. The counts are atomic; the list is split
// into shards by address, each under its own lock, since file objects come and go with every open.
#include "ob/object.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "check/fatal.h"
#include "ke/word_lock.h"
#include "ob/header.h"
#include <nthost/debug.h>

namespace nthost::ob {

namespace {

struct alignas(64) Shard {
    ke::WordLock Lock;
    LIST_ENTRY Head{&Head, &Head};
};

constexpr size_t ShardCount = 16;
Shard g_shards[ShardCount];
std::atomic<ULONG> g_generation;

Shard& ShardOf(const Header* header) { return g_shards[(reinterpret_cast<uintptr_t>(header) >> 6) % ShardCount]; }

void Enlist(Header* header)
{
    Shard& shard = ShardOf(header);
    const std::lock_guard hold(shard.Lock);
    InsertTailList(&shard.Head, &header->Live);
}

void Delist(Header* header)
{
    Shard& shard = ShardOf(header);
    const std::lock_guard hold(shard.Lock);
    RemoveEntryList(&header->Live);
}

void DeleteObject(Header* header)
{
    if (header->Name)
        Fatal("object %p (%s) lost its last reference while it has a name", BodyOf(header), header->Type->Name);
    Delist(header);
    header->Type->Live.fetch_sub(1, std::memory_order_relaxed);
    if (header->Type->Delete) header->Type->Delete(BodyOf(header));
    header->~Header();
    free(header);
}

std::string Utf8NameOf(void* body)
{
    const std::u16string name = NameOf(body);
    return ToUtf8(reinterpret_cast<const WCHAR*>(name.data()), name.size());
}

} // namespace

void* CreateObject(POBJECT_TYPE type, size_t size)
{
    void* const memory = calloc(1, sizeof(Header) + size);
    if (!memory) return nullptr;
    static_assert(alignof(std::max_align_t) >= 16, "bodies are 16-byte aligned by the allocator");
    Header* const header = new (memory) Header{};
    header->Pointers.store(1, std::memory_order_relaxed);
    header->Type = type;
    header->Generation = g_generation.load(std::memory_order_relaxed);
    type->Live.fetch_add(1, std::memory_order_relaxed);
    Enlist(header);
    return BodyOf(header);
}

POBJECT_TYPE TypeOf(void* body) { return HeaderOf(body)->Type; }

LONG PointerCount(void* body) { return HeaderOf(body)->Pointers.load(std::memory_order_relaxed); }

LONG HandleCount(void* body) { return HeaderOf(body)->Handles.load(std::memory_order_relaxed); }

bool DereferenceUnlessLast(void* body)
{
    std::atomic<LONG>& pointers = HeaderOf(body)->Pointers;
    LONG count = pointers.load(std::memory_order_relaxed);
    while (count > 1)
        if (pointers.compare_exchange_weak(count, count - 1, std::memory_order_acq_rel)) return true;
    return false;
}

void BeginGeneration() { g_generation.fetch_add(1, std::memory_order_relaxed); }

void MarkOfBoot(void* body) { HeaderOf(body)->OfBoot = true; }

std::vector<LiveObject> LiveObjects()
{
    // Names are looked up under the namespace lock, which must not nest inside a shard's: references bridge the gap.
    std::vector<void*> bodies;
    const ULONG generation = g_generation.load(std::memory_order_relaxed);
    for (Shard& shard : g_shards) {
        const std::lock_guard hold(shard.Lock);
        for (LIST_ENTRY* entry = shard.Head.Flink; entry != &shard.Head; entry = entry->Flink) {
            Header* const header = CONTAINING_RECORD(entry, Header, Live);
            if (header->OfBoot || header->Generation != generation) continue;
            LONG count = header->Pointers.load(std::memory_order_relaxed);
            while (count > 0 && !header->Pointers.compare_exchange_weak(count, count + 1)) {}
            if (count > 0) bodies.push_back(BodyOf(header));
        }
    }
    std::vector<LiveObject> live;
    for (void* body : bodies) {
        live.push_back({TypeOf(body)->Name, Utf8NameOf(body), PointerCount(body) - 1, HandleCount(body)});
        ObDereferenceObject(body);
    }
    return live;
}

void Boot()
{
    BeginGeneration();
    BootNamespace();
}

void Shutdown()
{
    ShutdownNamespace();
    BeginGeneration();
}

} // namespace nthost::ob

using nthost::Fatal;
using nthost::ob::HeaderOf;

LONG_PTR FASTCALL ObfReferenceObject(PVOID Object)
{
    auto* const header = HeaderOf(Object);
    const LONG before = header->Pointers.fetch_add(1, std::memory_order_relaxed);
    if (before <= 0)
        Fatal("object %p (%s) referenced after its last reference was dropped", Object, header->Type->Name);
    return before + 1;
}

LONG_PTR FASTCALL ObfDereferenceObject(PVOID Object)
{
    auto* const header = HeaderOf(Object);
    const LONG before = header->Pointers.fetch_sub(1, std::memory_order_acq_rel);
    if (before <= 0) Fatal("object %p (%s) dereferenced below zero", Object, header->Type->Name);
    if (before == 1) nthost::ob::DeleteObject(header);
    return before - 1;
}

NTSTATUS NTAPI ObReferenceObjectByPointer(PVOID Object, ACCESS_MASK, POBJECT_TYPE ObjectType,
                                          KPROCESSOR_MODE AccessMode)
{
    // A kernel-mode caller knows what it holds.
    if (AccessMode != KernelMode && HeaderOf(Object)->Type != ObjectType) return STATUS_OBJECT_TYPE_MISMATCH;
    ObfReferenceObject(Object);
    return STATUS_SUCCESS;
}
