// What the soak writes: each byte tells where in a file it belongs, so a read knows what it may see, whoever wrote,
// cut, renamed or mapped the file meanwhile. Zero is what was never written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace soak {

inline char ByteAt(uint64_t offset) { return static_cast<char>((offset * 131 + (offset >> 8) + (offset >> 16)) | 1); }

inline std::string BytesAt(uint64_t offset, size_t length)
{
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i) bytes[i] = ByteAt(offset + i);
    return bytes;
}

// The first byte that no write can have put there, or length.
inline size_t FirstStrange(uint64_t offset, const char* bytes, size_t length)
{
    size_t i = 0;
    while (i < length && (bytes[i] == 0 || bytes[i] == ByteAt(offset + i))) ++i;
    return i;
}

} // namespace soak
