// The writing side of the recorder, for the kernel itself.
#pragma once

#include <nthost/recorder.h>

#include "ke/thread.h"

namespace nthost::ke {

class Record; // of one thread at a time

// A thread begins and ends; what it noted stays until its successor has written over it. Null without memory.
Record* TakeRecord(const _ETHREAD* thread);
void GiveRecord(Record* record);

uint32_t RecordedNumber(const _ETHREAD* thread); // 0 without a record

// When a request of the thread begins. Reading the clock is most of what a span costs: a close that follows its cleanup
// begins where that ended.
inline uint64_t RequestBegins(_ETHREAD* thread, UCHAR major)
{
    const uint64_t cleanupEnded = thread->CleanupEnded;
    thread->CleanupEnded = 0;
    return cleanupEnded && major == IRP_MJ_CLOSE ? cleanupEnded : SpanClock();
}

struct RequestEnd {
    UCHAR Major;
    bool IsPaging;
    uint64_t Number;
    uint64_t SentAt;
    uint32_t SentBy;
    NTSTATUS Status;
    uint64_t Information;
};
void NoteRequest(const RequestEnd& end);

// While it lives, the current thread sleeps.
class RecordedWait {
public:
    RecordedWait(const char* what, const void* address);
    ~RecordedWait();
    RecordedWait(const RecordedWait&) = delete;
    RecordedWait& operator=(const RecordedWait&) = delete;

private:
    Record* record_; // null outside of a request
};

} // namespace nthost::ke
