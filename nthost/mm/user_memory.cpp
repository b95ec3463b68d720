// Arenas of user memory and the table that finds them by address. The table's lock guards the table alone; a pin keeps
// an arena's pages after it has left the table.
#include <nthost/user_memory.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include <ntifs.h>

#include "check/fatal.h"
#include "ke/word_lock.h"
#include "mm/arena.h"
#include <nthost/check.h>

namespace nthost::mm {

namespace {

ke::WordLock g_lock;
std::map<uintptr_t, Arena*> g_arenas; // by address; under g_lock
std::atomic<unsigned> g_arenaCount;   // its size, read without: locking ordinary memory should cost no lock

size_t PageEnd(uintptr_t value) { return (value + PAGE_SIZE - 1) & ~uintptr_t{PAGE_SIZE - 1}; }

void Release(Arena* arena)
{
    if (arena->References.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    close(arena->Memfd);
    delete arena;
}

bool Withdraw(Arena* arena)
{
    const std::lock_guard hold(g_lock);
    const bool was = g_arenas.erase(reinterpret_cast<uintptr_t>(arena->Address));
    g_arenaCount.store(static_cast<unsigned>(g_arenas.size()), std::memory_order_release);
    return was;
}

bool IsListed(const Arena* arena)
{
    const std::lock_guard hold(g_lock);
    return g_arenas.count(reinterpret_cast<uintptr_t>(arena->Address));
}

void List(Arena* arena)
{
    const std::lock_guard hold(g_lock);
    g_arenas.emplace(reinterpret_cast<uintptr_t>(arena->Address), arena);
    g_arenaCount.store(static_cast<unsigned>(g_arenas.size()), std::memory_order_release);
}

// The range keeps its place in the address space but has no pages.
void Vacate(const Arena* arena)
{
    void* const at = mmap(arena->Address, arena->Size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    if (at == MAP_FAILED) Fatal("user memory %p cannot be unmapped", arena->Address);
}

void Occupy(const Arena* arena)
{
    void* const at = mmap(arena->Address, arena->Size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, arena->Memfd, 0);
    if (at == MAP_FAILED) Fatal("user memory %p cannot be mapped", arena->Address);
}

Arena* MakeArena(size_t size)
{
    size = PageEnd(size ? size : 1);
    const int memfd = memfd_create("user-memory", MFD_CLOEXEC);
    if (memfd < 0 || ftruncate(memfd, static_cast<off_t>(size)) != 0) throw std::bad_alloc();
    void* const reserved = mmap(nullptr, size + 2 * PAGE_SIZE, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (reserved == MAP_FAILED) throw std::bad_alloc();
    return new Arena{memfd, size, static_cast<char*>(reserved) + PAGE_SIZE, {1}, {0}};
}

} // namespace

Arena* PinArenaOf(const void* address, size_t length)
{
    if (g_arenaCount.load(std::memory_order_acquire) == 0) return nullptr;
    const auto start = reinterpret_cast<uintptr_t>(address);
    const std::lock_guard hold(g_lock);
    auto after = g_arenas.upper_bound(start);
    if (after == g_arenas.begin()) return nullptr;
    Arena* const arena = std::prev(after)->second;
    if (start + length > reinterpret_cast<uintptr_t>(arena->Address) + arena->Size) return nullptr;
    arena->References.fetch_add(1, std::memory_order_relaxed);
    arena->Pins.fetch_add(1, std::memory_order_relaxed);
    return arena;
}

void Unpin(Arena* arena)
{
    arena->Pins.fetch_sub(1, std::memory_order_relaxed);
    Release(arena);
}

void* MapSystemAddress(const Arena* arena, const void* userAddress, size_t length)
{
    const size_t offset = static_cast<size_t>(static_cast<const char*>(userAddress) - arena->Address);
    const size_t page = offset & ~size_t{PAGE_SIZE - 1};
    void* const base = mmap(nullptr, PageEnd(offset + length) - page, PROT_READ | PROT_WRITE, MAP_SHARED, arena->Memfd,
                            static_cast<off_t>(page));
    return base == MAP_FAILED ? nullptr : static_cast<char*>(base) + (offset - page);
}

void UnmapSystemAddress(void* systemAddress, size_t length)
{
    char* const base = static_cast<char*>(PAGE_ALIGN(systemAddress));
    munmap(base, PageEnd(BYTE_OFFSET(systemAddress) + length));
}

} // namespace nthost::mm

namespace nthost {

using namespace mm;

UserMemory::UserMemory(size_t size) : arena_(MakeArena(size))
{
    Occupy(arena_);
    List(arena_);
}

UserMemory::~UserMemory()
{
    Withdraw(arena_);
    if (const unsigned pins = LockedCount())
        ReportFinding("pages-still-locked", "user memory freed with " + std::to_string(pins) + " locked MDLs on it");
    munmap(arena_->Address - PAGE_SIZE, arena_->Size + 2 * PAGE_SIZE);
    Release(arena_);
}

char* UserMemory::Address() const { return arena_->Address; }

size_t UserMemory::Size() const { return arena_->Size; }

void UserMemory::Unmap() { Vacate(arena_); }

void UserMemory::Map()
{
    if (IsListed(arena_)) Occupy(arena_);
}

void UserMemory::Protect(bool readable, bool writable)
{
    mprotect(arena_->Address, arena_->Size, (readable ? PROT_READ : PROT_NONE) | (writable ? PROT_WRITE : PROT_NONE));
}

void UserMemory::Free()
{
    if (Withdraw(arena_)) Vacate(arena_);
}

unsigned UserMemory::LockedCount() const { return arena_->Pins.load(std::memory_order_relaxed); }

} // namespace nthost
