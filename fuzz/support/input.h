// A fuzzer's input read as a sequence of decisions, from its front; behind its end there are only zeros, so a shorter
// input always means something too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <ntifs.h>

namespace fuzz {

class Input {
public:
    Input(const uint8_t* data, size_t size) : at_(data), left_(size) {}

    bool Empty() const { return left_ == 0; }
    uint8_t Byte();
    // True for so many of the 256 values of a byte, the high ones: an exhausted input says no.
    bool Sometimes(unsigned of256) { return Byte() >= 256 - of256; }
    template <typename T>
    T Raw()
    {
        T value{};
        Take(&value, sizeof value);
        return value;
    }
    // A number that is often at an edge: around zero, powers of two, page and sign limits.
    int64_t Number();
    // From 0 to the limit, both included; a limit below 64 Ki.
    ULONG Below(ULONG limit) { return limit ? Raw<uint16_t>() % (limit + 1) : 0; }
    template <typename T, size_t N>
    const T& Pick(const T (&of)[N])
    {
        return of[Byte() % N];
    }
    // Some of the bits.
    template <size_t N>
    ULONG Bits(const ULONG (&of)[N])
    {
        ULONG bits = 0;
        for (uint16_t which = Raw<uint16_t>(); which; which &= which - 1) bits |= of[__builtin_ctz(which) % N];
        return bits;
    }
    std::string Bytes(size_t atMost);
    // What is left, at the back, for somebody who reads beside.
    Input SplitBack();

private:
    void Take(void* to, size_t size);

    const uint8_t* at_;
    size_t left_;
};

// A path of up to five components: mostly those of the tree that Populate (world.h) makes, with other spellings,
// forbidden characters, patterns, streams, and lengths at the limits among them.
std::u16string Path(Input& input);
std::u16string Component(Input& input);
// Whether it begins at the volume's root or is relative is the caller's choice.

// Some bytes of the record become others: up to four.
void Spoil(Input& input, void* record, size_t size);

} // namespace fuzz
