// The lock manager, and the operations that use it.
#include "gvnd/mount/locks.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>

#include "gvnd/mount/bridge.h"
#include "gvnd/mount/errors.h"

namespace tool::mount {

namespace {

constexpr uint64_t kLastByte = (uint64_t(1) << 62) - 2; // of a file, for locks: ranges beyond are cut
constexpr uint64_t kRanges = uint64_t(1) << 62;         // where byte 0 is locked
constexpr uint64_t kWhole = kRanges - 1;                // where a whole file is

Range NtRange(const LockOwner& owner, const LockSpan& span)
{
    if (owner.Kind == LockKind::Whole) return {kWhole, 1, span.Exclusive};
    return {kRanges + span.First, span.Last - span.First + 1, span.Exclusive};
}

bool Overlap(const LockSpan& a, uint64_t first, uint64_t last) { return a.First <= last && first <= a.Last; }

} // namespace

bool Locks::FindConflict(const Node* node, const LockOwner& owner, const LockSpan& span, LockSpan* conflict)
{
    const std::lock_guard lock(mutex_);
    for (const auto& [key, holder] : holders_) {
        if (key.first != node || key.second.Kind != owner.Kind || key.second == owner) continue;
        for (const LockSpan& held : holder.Spans) {
            if (!Overlap(held, span.First, span.Last) || !(held.Exclusive || span.Exclusive)) continue;
            *conflict = held;
            return true;
        }
    }
    return false;
}

// Another handle on the file, by the node's path, with whatever access can be had: locks need one.
int Locks::MakeHolder(Node* node, Holder* holder)
{
    if (holder->File) return 0;
    const NtName path = nodes_.PathOf(node);
    NTSTATUS status = STATUS_FILE_DELETED;
    for (const ACCESS_MASK access : {FILE_READ_DATA, FILE_WRITE_DATA}) {
        Handle handle;
        if (!path.empty()) status = Open(path, {.Access = access, .Options = FILE_NON_DIRECTORY_FILE}, &handle);
        if (!NT_SUCCESS(status)) continue;
        holder->File = new OpenFile(node, std::move(handle), access, kShareEverything);
        nodes_.AddFile(node, holder->File);
        return 0;
    }
    return ErrorOf(status);
}

// What the holder has from first to last goes, and what is wanted, if anything, takes its place. NT unlocks exactly
// what was locked, so spans that reach over the ends are given up and their rest is locked anew; the mutex keeps
// everybody from coming in between. A refusal leaves all as it was.
int Locks::Replace(Holder* holder, const LockOwner& owner, const LockSpan* wanted, uint64_t first, uint64_t last)
{
    std::vector<LockSpan> given, kept;
    for (const LockSpan& span : holder->Spans) (Overlap(span, first, last) ? given : kept).push_back(span);
    for (const LockSpan& span : given) holder->File->Unlock(NtRange(owner, span));
    NTSTATUS status = STATUS_SUCCESS;
    if (wanted) status = holder->File->Lock(NtRange(owner, *wanted));
    if (!NT_SUCCESS(status)) {
        for (const LockSpan& span : given) (void)holder->File->Lock(NtRange(owner, span));
        return ErrorOf(status);
    }
    if (wanted) kept.push_back(*wanted);
    for (const LockSpan& span : given) {
        LockSpan before = span, after = span;
        before.Last = first - 1;
        after.First = last + 1;
        if (span.First < first) kept.push_back(before);
        if (span.Last > last) kept.push_back(after);
        if (span.First < first) (void)holder->File->Lock(NtRange(owner, before));
        if (span.Last > last) (void)holder->File->Lock(NtRange(owner, after));
    }
    holder->Spans = std::move(kept);
    return 0;
}

int Locks::TrySet(Node* node, const LockOwner& owner, const LockSpan& span)
{
    Holder& holder = holders_[{node, owner}];
    if (const int error = MakeHolder(node, &holder)) return error;
    return Replace(&holder, owner, &span, span.First, span.Last);
}

int Locks::Set(fuse_req_t request, Node* node, const LockOwner& owner, const LockSpan& span, bool wait)
{
    const std::lock_guard lock(mutex_);
    const int error = TrySet(node, owner, span);
    if (error == EAGAIN && wait) {
        if (fuse_req_interrupted(request)) return EINTR;
        waiters_.push_back({request, node, owner, span});
        return 0;
    }
    if (error) return error;
    fuse_reply_err(request, 0);
    ServeWaiters(node); // an exclusive lock may have become a shared one
    return 0;
}

void Locks::Clear(Node* node, const LockOwner& owner, const LockSpan& span)
{
    const std::lock_guard lock(mutex_);
    const auto found = holders_.find({node, owner});
    if (found == holders_.end()) return;
    (void)Replace(&found->second, owner, nullptr, span.First, span.Last);
    ServeWaiters(node);
}

void Locks::Release(Node* node, const LockOwner& owner)
{
    const std::lock_guard lock(mutex_);
    const auto found = holders_.find({node, owner});
    if (found == holders_.end()) return;
    if (OpenFile* const file = found->second.File) {
        file->Close(); // and its locks with it
        // The file that the kernel is closing is still there, so this is not a deleted one's last.
        (void)nodes_.RemoveFile(node, file);
        delete file;
    }
    holders_.erase(found);
    ServeWaiters(node);
}

void Locks::ServeWaiters(const Node* node)
{
    for (auto waiter = waiters_.begin(); waiter != waiters_.end();) {
        const int error = waiter->Node == node ? TrySet(waiter->Node, waiter->Owner, waiter->Span) : EAGAIN;
        if (error == EAGAIN) {
            ++waiter;
            continue;
        }
        fuse_reply_err(waiter->Request, error);
        waiter = waiters_.erase(waiter);
    }
}

void Locks::Interrupted(fuse_req_t request)
{
    const std::lock_guard lock(mutex_);
    const auto found = std::find_if(waiters_.begin(), waiters_.end(),
                                    [request](const Waiter& waiter) { return waiter.Request == request; });
    if (found == waiters_.end()) return;
    waiters_.erase(found);
    fuse_reply_err(request, EINTR);
}

namespace {

OpenFile* FileOf(const fuse_file_info* file) { return reinterpret_cast<OpenFile*>(file->fh); }

LockSpan SpanOf(const struct flock& lock)
{
    const auto first = std::min(static_cast<uint64_t>(lock.l_start), kLastByte);
    const uint64_t last = lock.l_len == 0 ? kLastByte : first + static_cast<uint64_t>(lock.l_len) - 1;
    return {first, std::min(last, kLastByte), lock.l_type == F_WRLCK, lock.l_pid};
}

} // namespace

int Bridge::TestLock(fuse_req_t request, fuse_file_info* file, struct flock* lock)
{
    const std::shared_lock names(nodes_.Namespace);
    LockSpan conflict;
    const LockOwner owner = {LockKind::Ranges, file->lock_owner};
    if (locks_.FindConflict(FileOf(file)->Owner(), owner, SpanOf(*lock), &conflict)) {
        const bool toTheEnd = conflict.Last == kLastByte;
        *lock = {.l_type = static_cast<short>(conflict.Exclusive ? F_WRLCK : F_RDLCK),
                 .l_whence = SEEK_SET,
                 .l_start = static_cast<off_t>(conflict.First),
                 .l_len = toTheEnd ? 0 : static_cast<off_t>(conflict.Last - conflict.First + 1),
                 .l_pid = conflict.Pid};
    } else {
        lock->l_type = F_UNLCK;
    }
    fuse_reply_lock(request, lock);
    return 0;
}

int Bridge::SetLock(fuse_req_t request, fuse_file_info* file, const struct flock& lock, bool wait)
{
    const std::shared_lock names(nodes_.Namespace);
    Node* const node = FileOf(file)->Owner();
    const LockOwner owner = {LockKind::Ranges, file->lock_owner};
    if (lock.l_type != F_UNLCK) return locks_.Set(request, node, owner, SpanOf(lock), wait);
    locks_.Clear(node, owner, SpanOf(lock));
    fuse_reply_err(request, 0);
    return 0;
}

int Bridge::LockWhole(fuse_req_t request, fuse_file_info* file, int operation)
{
    const std::shared_lock names(nodes_.Namespace);
    Node* const node = FileOf(file)->Owner();
    const LockOwner owner = {LockKind::Whole, file->lock_owner};
    const LockSpan span = {0, 0, (operation & LOCK_EX) != 0, 0};
    if (!(operation & LOCK_UN)) return locks_.Set(request, node, owner, span, !(operation & LOCK_NB));
    locks_.Clear(node, owner, span);
    fuse_reply_err(request, 0);
    return 0;
}

} // namespace tool::mount
