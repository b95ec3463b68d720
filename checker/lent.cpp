// Lent arguments. A ring of pages that were lent lately, under a lock of its own, is what a fault is compared with.
#include "lent.h"

#include <array>
#include <cstring>
#include <mutex>
#include <new>

#include <sys/mman.h>

namespace checker {

namespace {

struct Pages {
    char* Begin = nullptr;
    size_t Length = 0;
};

std::mutex g_mutex;
std::array<Pages, 256> g_ring;
size_t g_next;

char* Map(size_t length)
{
    void* const pages = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) throw std::bad_alloc();
    return static_cast<char*>(pages);
}

} // namespace

LentBytes::LentBytes(const void* bytes, size_t size, size_t inFront)
    : length_((size + inFront + 16 + PAGE_SIZE - 1) & ~size_t(PAGE_SIZE - 1)), size_(size)
{
    pages_ = Map(length_ + PAGE_SIZE);
    mprotect(pages_ + length_, PAGE_SIZE, PROT_NONE);
    bytes_ = pages_ + length_ - size;
    if (size) std::memcpy(bytes_, bytes, size);
}

LentBytes::~LentBytes()
{
    mprotect(pages_, length_, PROT_NONE);
    const std::lock_guard lock(g_mutex);
    Pages& slot = g_ring[g_next++ % g_ring.size()];
    if (slot.Begin) munmap(slot.Begin, slot.Length);
    slot = {pages_, length_ + PAGE_SIZE};
}

bool LentBytes::Unchanged(const void* bytes) const { return size_ == 0 || std::memcmp(bytes_, bytes, size_) == 0; }

bool LentBytes::WasLent(const void* address)
{
    const std::lock_guard lock(g_mutex);
    for (const Pages& pages : g_ring) {
        if (pages.Begin && address >= pages.Begin && address < pages.Begin + pages.Length) return true;
    }
    return false;
}

Lent<PCUNICODE_STRING>::Lent(PCUNICODE_STRING text)
    : text_(text), copy_(text ? text->Buffer : nullptr, text ? text->Length : 0, sizeof(UNICODE_STRING))
{
    if (!text) return;
    auto* const header = static_cast<PUNICODE_STRING>(copy_.Front());
    *header = {text->Length, text->Length, reinterpret_cast<PWCH>(copy_.Bytes())};
}

bool Lent<PCUNICODE_STRING>::Unchanged() const
{
    if (!text_) return true;
    const auto* const header = static_cast<PCUNICODE_STRING>(copy_.Front());
    return header->Length == text_->Length && static_cast<void*>(header->Buffer) == copy_.Bytes() &&
           copy_.Unchanged(text_->Buffer);
}

Lent<const char*>::Lent(const char* text) : text_(text), copy_(text, std::strlen(text) + 1, 0) {}

} // namespace checker
