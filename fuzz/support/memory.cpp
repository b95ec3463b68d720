// Buffers that are mostly right.
#include "support/memory.h"

namespace fuzz {

namespace {

void* const kWild[] = {nullptr, reinterpret_cast<void*>(0x10), reinterpret_cast<void*>(0x7fff0000ull),
                       reinterpret_cast<void*>(0xffff800000000000ull), reinterpret_cast<void*>(0xfffffffffffffff8ull)};

} // namespace

void Buffer::Heap(size_t size, size_t skew, const void* content)
{
    heap_.reset(new char[size + skew]());
    address_ = heap_.get() + skew;
    if (content) std::memcpy(address_, content, size);
}

Buffer::Buffer(Input& input, size_t size, const void* content) : length_(static_cast<ULONG>(size))
{
    const uint8_t kind = input.Byte();
    if (kind < 216) {
        Heap(size, 0, content);
    } else if (kind < 228) {
        Heap(size, kind % 8, content);
    } else if (kind < 244) {
        pages_ = std::make_unique<nthost::UserMemory>(size ? size : 1);
        address_ = pages_->Address() + pages_->Size() - size;
        if (content) std::memcpy(address_, content, size);
        if (kind < 232) length_ += input.Raw<uint16_t>();
        if (kind < 234) pages_->Protect(true, false);
        if (kind >= 240) pages_->Unmap();
    } else {
        address_ = input.Pick(kWild);
    }
}

HostileString::HostileString(Input& input, std::u16string_view text) : text_(new char16_t[text.size()])
{
    std::memcpy(text_.get(), text.data(), text.size() * sizeof(char16_t));
    string_.Buffer = reinterpret_cast<PWSTR>(text_.get());
    string_.Length = string_.MaximumLength = static_cast<USHORT>(text.size() * sizeof(char16_t));
    switch (input.Byte()) {
    case 255: string_.Buffer = static_cast<PWSTR>(input.Pick(kWild)); break;
    case 254: string_.MaximumLength = 0; break;
    case 253: string_.Length = string_.Length ? string_.Length - 1 : 0; break;
    default: break;
    }
}

} // namespace fuzz
