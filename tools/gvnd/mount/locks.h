// Advisory locks: byte ranges (fcntl), which belong to a process, and whole files (flock), which belong to an open.
// NT's byte-range locks keep others from reading and writing, which Linux's do not; so a lock is an NT lock far behind
// where any data can be, where it meets other locks alone. Each owner has an NT handle of its own on a file, since that
// is whom NT's locks belong to.
//
// NT decides what conflicts. What is kept here is what NT does not tell: who holds which range, to split, change and
// report them, and who waits. Waiting happens here: a thread that waits in NT would be one that serves nobody.
//
// Every member takes the manager's mutex; the caller holds Nodes::Namespace, shared, except for Interrupted.
#pragma once

#include <list>
#include <map>
#include <mutex>
#include <tuple>
#include <vector>

#define FUSE_USE_VERSION 312
#include <fuse3/fuse_lowlevel.h>

#include "gvnd/mount/files.h"
#include "gvnd/mount/nodes.h"

namespace tool::mount {

enum class LockKind { Ranges, Whole };

struct LockOwner {
    LockKind Kind;
    uint64_t Id; // the kernel's
    auto operator<=>(const LockOwner&) const = default;
};

// First and last byte, as Linux counts them.
struct LockSpan {
    uint64_t First;
    uint64_t Last;
    bool Exclusive;
    pid_t Pid;
};

class Locks {
public:
    explicit Locks(Nodes& nodes) : nodes_(nodes) {}
    Locks(const Locks&) = delete;
    Locks& operator=(const Locks&) = delete;

    // One that keeps the owner from having the span; false if there is none.
    bool FindConflict(const Node* node, const LockOwner& owner, const LockSpan& span, LockSpan* conflict);
    // Answers the request at once or, if it may wait, later; else the error to answer with.
    int Set(fuse_req_t request, Node* node, const LockOwner& owner, const LockSpan& span, bool wait);
    void Clear(Node* node, const LockOwner& owner, const LockSpan& span);
    // All that the owner has.
    void Release(Node* node, const LockOwner& owner);
    void Interrupted(fuse_req_t request);

private:
    struct Holder {
        OpenFile* File = nullptr;
        std::vector<LockSpan> Spans; // never overlapping
    };
    struct Waiter {
        fuse_req_t Request;
        ::tool::mount::Node* Node;
        LockOwner Owner;
        LockSpan Span;
    };
    using Key = std::pair<const Node*, LockOwner>;

    int TrySet(Node* node, const LockOwner& owner, const LockSpan& span);
    int Replace(Holder* holder, const LockOwner& owner, const LockSpan* wanted, uint64_t first, uint64_t last);
    int MakeHolder(Node* node, Holder* holder);
    void ServeWaiters(const Node* node);

    Nodes& nodes_;
    std::mutex mutex_;
    std::map<Key, Holder> holders_;
    std::list<Waiter> waiters_; // in order of arrival
};

} // namespace tool::mount
