// A hostile caller's buffers: exactly as long as they say, so that the address sanitizer sees who goes behind their
// end, or at addresses that fault.
#pragma once

#include <memory>

#include <nthost/user_memory.h>

#include "support/input.h"

namespace fuzz {

class Buffer {
public:
    // With content, or zeros. Now and then it says more than it has, and then ends at a page that faults.
    Buffer(Input& input, size_t size, const void* content = nullptr);
    Buffer(Buffer&&) = default;

    void* Address() const { return address_; }
    ULONG Length() const { return length_; }

private:
    void Heap(size_t size, size_t skew, const void* content);

    std::unique_ptr<char[]> heap_;
    std::unique_ptr<nthost::UserMemory> pages_;
    void* address_ = nullptr;
    ULONG length_ = 0;
};

// A counted string in a block of exactly its size; now and then with lengths or an address that are wrong.
class HostileString {
public:
    HostileString(Input& input, std::u16string_view text);
    PUNICODE_STRING Get() { return &string_; }

private:
    std::unique_ptr<char16_t[]> text_;
    UNICODE_STRING string_{};
};

} // namespace fuzz
