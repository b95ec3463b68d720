// An open file of the mount: one NT handle, with the access that the program asked for. The handle can be closed and
// opened again under another path, while its directory moves; requests on it wait meanwhile.
#pragma once

#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <vector>

#include "gvnd/mount/requests.h"

namespace tool::mount {

struct Node;

struct Range {
    uint64_t First;
    uint64_t Length;
    bool Exclusive;
    bool operator==(const Range&) const = default;
};

class OpenFile {
public:
    OpenFile(Node* owner, Handle handle, ACCESS_MASK access, ULONG share)
        : owner_(owner), access_(access), share_(share), handle_(std::move(handle))
    {}
    Node* Owner() const { return owner_; }
    ACCESS_MASK Access() const { return access_; }

    // Runs body with the handle, which stays as it is that long. A file that could not be opened again after its
    // directory had moved gives the status of that.
    template <typename Body>
    [[nodiscard]] NTSTATUS With(const Body& body)
    {
        const std::shared_lock lock(mutex_);
        return handle_ ? body(handle_.Get()) : lost_;
    }

    // Between the two nobody else gets at the file: Resume is on the thread that called Suspend. Byte-range locks come
    // back with the handle; nobody can have taken them meanwhile, since whoever locks holds Nodes::Namespace.
    void Suspend();
    void Resume(const NtName& path);
    void Close();

    // Byte ranges as NT counts them. Whoever calls holds the lock manager's mutex.
    [[nodiscard]] NTSTATUS Lock(const Range& range);
    void Unlock(const Range& range);

private:
    Node* const owner_;
    const ACCESS_MASK access_;
    const ULONG share_;
    std::shared_mutex mutex_;
    Handle handle_;
    NTSTATUS lost_ = STATUS_FILE_CLOSED;
    std::vector<Range> locked_;
};

[[nodiscard]] NTSTATUS ClearReadOnly(const NtName& path);

} // namespace tool::mount
