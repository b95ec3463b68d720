// The lists of requests that are out. A request on a list can end at any moment, so whoever walks a list takes holds on
// the records under its lock and acts after it. Thread lists share a few locks by address.
#include "io/outstanding.h"

#include <mutex>

#include <nthost/check.h>

#include "io/file.h"
#include "ke/park.h"
#include "ke/thread.h"
#include "ke/wait.h"
#include "ke/word_lock.h"

namespace nthost::io {

namespace {

struct alignas(64) ThreadBucket {
    ke::WordLock Lock;
    ke::EndSignal Ended;
};

ThreadBucket g_buckets[16];

ThreadBucket& BucketOf(const _ETHREAD* thread) { return g_buckets[(reinterpret_cast<uintptr_t>(thread) >> 7) % 16]; }

void EnlistWithThread(IrpRecord* record)
{
    PETHREAD const thread = record->Irp.Tail.Overlay.Thread;
    const std::lock_guard hold(BucketOf(thread).Lock);
    if (!thread->IrpList.Flink) InitializeListHead(&thread->IrpList);
    InsertTailList(&thread->IrpList, &record->Irp.ThreadListEntry);
    thread->OutstandingIrps.fetch_add(1, std::memory_order_relaxed);
    record->OnThreadList = true;
}

void DelistFromThread(IrpRecord* record)
{
    PETHREAD const thread = record->Irp.Tail.Overlay.Thread;
    ThreadBucket& bucket = BucketOf(thread);
    {
        const std::lock_guard hold(bucket.Lock);
        RemoveEntryList(&record->Irp.ThreadListEntry);
        thread->OutstandingIrps.fetch_sub(1, std::memory_order_release);
    }
    bucket.Ended.Raise(); // the thread may be gone
}

bool InScope(const IrpRecord* record, const CancelScope& scope)
{
    const IRP& irp = record->Irp;
    if (record->State.load(std::memory_order_acquire) != IrpState::Live) return false;
    if (scope.Thread && (irp.Tail.Overlay.Thread != scope.Thread || !record->OnThreadList)) return false;
    if (scope.Process && record->Requestor != scope.Process) return false;
    return !scope.StatusBlock || irp.UserIosb == scope.StatusBlock;
}

// True if the file's list has a request of the thread that has not been taken off, ended or not.
bool HasRequestOf(FileBody* file, PETHREAD thread)
{
    const std::lock_guard hold(file->RequestLock);
    const LIST_ENTRY* const head = &file->File.IrpList;
    for (const LIST_ENTRY* entry = head->Flink; entry != head; entry = entry->Flink) {
        const IrpRecord* const record = CONTAINING_RECORD(entry, IrpRecord, FileEntry);
        if (record->Irp.Tail.Overlay.Thread == thread && record->OnThreadList) return true;
    }
    return false;
}

unsigned CancelAndRelease(const std::vector<IrpRecord*>& held)
{
    for (IrpRecord* record : held) {
        IoCancelIrp(&record->Irp);
        ReleaseRecord(record);
    }
    return static_cast<unsigned>(held.size());
}

// A request of a thread that exits, and its file object: the request's own reference can go with it while the driver
// still is in its cancel routine.
struct HeldRequest {
    IrpRecord* Record;
    PFILE_OBJECT File;
};

std::vector<HeldRequest> HoldThreadRequests(_ETHREAD* thread)
{
    std::vector<HeldRequest> held;
    const std::lock_guard hold(BucketOf(thread).Lock);
    if (!thread->IrpList.Flink) return held;
    for (LIST_ENTRY* entry = thread->IrpList.Flink; entry != &thread->IrpList; entry = entry->Flink) {
        IrpRecord* const record = RecordOf(CONTAINING_RECORD(entry, IRP, ThreadListEntry));
        if (record->State.load(std::memory_order_acquire) != IrpState::Live) continue;
        HoldRecord(record);
        ObReferenceObject(record->File); // on the list, a request has not given back its own
        held.push_back({record, record->File});
    }
    return held;
}

} // namespace

int64_t CancelPatience = INT64_C(10'000'000'000);

void Enlist(IrpRecord* record)
{
    FileBody* const file = BodyOf(record->File);
    // The thread first: a request that is found through its file is complete as a record.
    if (record->How == Issue::Asynchronous) EnlistWithThread(record);
    record->OnFileList = true;
    const std::lock_guard hold(file->RequestLock);
    InsertTailList(&file->File.IrpList, &record->FileEntry);
}

void DetachFromThread(IrpRecord* record)
{
    if (!record->OnThreadList) return;
    DelistFromThread(record);
    const std::lock_guard hold(BodyOf(record->File)->RequestLock);
    record->OnThreadList = false;
}

void Delist(IrpRecord* record)
{
    // Not its links, which the requests beside it change.
    if (!record->OnFileList) return;
    record->OnFileList = false;
    FileBody* const file = BodyOf(record->File);
    if (record->OnThreadList) DelistFromThread(record);
    {
        const std::lock_guard hold(file->RequestLock);
        RemoveEntryList(&record->FileEntry);
    }
    file->Ended.Raise();
}

unsigned CancelFileRequests(PFILE_OBJECT file, const CancelScope& scope)
{
    FileBody* const body = BodyOf(file);
    std::vector<IrpRecord*> held;
    {
        const std::lock_guard hold(body->RequestLock);
        for (LIST_ENTRY* entry = file->IrpList.Flink; entry != &file->IrpList; entry = entry->Flink) {
            IrpRecord* const record = CONTAINING_RECORD(entry, IrpRecord, FileEntry);
            if (!InScope(record, scope)) continue;
            HoldRecord(record);
            held.push_back(record);
        }
    }
    return CancelAndRelease(held);
}

void AwaitFileRequests(PFILE_OBJECT file, PETHREAD thread)
{
    FileBody* const body = BodyOf(file);
    body->Ended.Await([&] { return !HasRequestOf(body, thread); });
}

void CancelThreadRequests(_ETHREAD* thread)
{
    if (thread->OutstandingIrps.load(std::memory_order_acquire) == 0) return;
    for (const HeldRequest& request : HoldThreadRequests(thread)) {
        IoCancelIrp(&request.Record->Irp);
        ReleaseRecord(request.Record);
        ObDereferenceObject(request.File);
    }
    const auto allEnded = [thread] { return thread->OutstandingIrps.load(std::memory_order_acquire) == 0; };
    ke::EndSignal& ended = BucketOf(thread).Ended;
    if (ended.Await(allEnded, ke::MonotonicNow() + CancelPatience)) return;
    // Its memory cannot go while a driver has requests of it, so the thread stays; but somebody should know why.
    ReportFinding("irp-not-cancelled", "a driver does not end the cancelled requests of a thread that exits");
    ended.Await(allEnded);
}

} // namespace nthost::io
