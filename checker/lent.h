// What the driver lends to an operation, in a place of its own: it is compared after the call, and nobody can touch it
// from then on, so that a plugin which keeps a path is found out at the first use.
#pragma once

#include <cstddef>

#include <gvnd/plugin.h>

namespace checker {

// Pages for one argument. The bytes end where memory ends, so that a read behind them faults.
class LentBytes {
public:
    LentBytes(const void* bytes, size_t size, size_t inFront);
    ~LentBytes(); // no access any more; the pages themselves stay for a while
    LentBytes(const LentBytes&) = delete;
    LentBytes& operator=(const LentBytes&) = delete;

    char* Bytes() const { return bytes_; }
    void* Front() const { return pages_; } // as much as was asked for
    bool Unchanged(const void* bytes) const;
    // Whether the address is in what was lent and taken back.
    static bool WasLent(const void* address);

private:
    char* pages_;
    size_t length_;
    char* bytes_;
    size_t size_;
};

// An argument as the operation gets it. Most pass as they are.
template <typename T>
class Lent {
public:
    explicit Lent(T value) : value_(value) {}
    T Get() { return value_; }
    bool Unchanged() const { return true; }

private:
    T value_;
};

template <>
class Lent<PCUNICODE_STRING> {
public:
    explicit Lent(PCUNICODE_STRING text);
    PCUNICODE_STRING Get() { return text_ ? static_cast<PCUNICODE_STRING>(copy_.Front()) : nullptr; }
    bool Unchanged() const;

private:
    PCUNICODE_STRING text_;
    LentBytes copy_;
};

template <>
class Lent<const char*> {
public:
    explicit Lent(const char* text);
    const char* Get() { return copy_.Bytes(); }
    bool Unchanged() const { return copy_.Unchanged(text_); }

private:
    const char* text_;
    LentBytes copy_;
};

} // namespace checker
