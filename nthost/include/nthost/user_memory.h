// Memory of a user process that can be unmapped, protected or freed while a request uses it. The pages live in a memfd,
// so those that a request has locked (MmProbeAndLockPages) stay, and their system address works on, whatever happens to
// the user's address. Thread-safe; one owner destroys.
#pragma once

#include <cstddef>

namespace nthost {

namespace mm {
struct Arena;
}

class UserMemory {
public:
    // Readable and writable, zeroed, size rounded up to pages; pages that always fault stand before and after it.
    explicit UserMemory(size_t size);
    // Finding "pages-still-locked" if a request still holds pages.
    ~UserMemory();
    UserMemory(const UserMemory&) = delete;
    UserMemory& operator=(const UserMemory&) = delete;

    // Stays the same, and nothing else gets it, until destruction.
    char* Address() const;
    size_t Size() const;

    // The address range faults on every access until Map; the contents are kept.
    void Unmap();
    void Map();
    void Protect(bool readable, bool writable);
    // As the process had freed it: the range faults for good, the contents are gone but for locked pages.
    void Free();

    // MDLs that have pages of it locked.
    unsigned LockedCount() const;

private:
    mm::Arena* arena_;
};

} // namespace nthost
