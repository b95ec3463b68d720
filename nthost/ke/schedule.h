// The scheduler that runs one thread at a time. A thread takes part once it has been announced and has entered; what
// others do, it does not see. It stands behind parking (ke/park.h), so everything that blocks comes here.
#pragma once

#include <cstdint>
#include <pthread.h>
#include <string>

#include <nthost/schedule.h>

#include "ke/schedule_point.h"

namespace nthost::ke {

constexpr unsigned kNoTicket = ~0u;

// The strategy is asked where more than one thread can run.
struct SchedulePlan {
    Strategy How;
    uint64_t Seed;
    bool Replays;                   // by the switches below; no strategy
    const ScheduleSwitch* Switches; // in order of their choices
    size_t SwitchCount;
    // Of the schedule without switches: its choices, and how many threads could run at each.
    uint32_t BaseChoices;
    const uint8_t* BaseWidths;
};

// What a schedule writes as it goes, in memory that outlives its process.
struct ScheduleLog {
    static constexpr uint32_t kMaximum = 1 << 16;
    uint32_t Choices;
    uint32_t SwitchCount;
    ScheduleSwitch Switches[kMaximum];
    uint8_t Widths[kMaximum];
};

// The calling thread becomes the first; from here on all new threads take part. Time begins anew.
void BeginSchedule();
void EndSchedule();
// Between these the plan chooses; outside whoever runs goes on.
void BeginChoices(const SchedulePlan& plan, ScheduleLog* log);
void EndChoices();

bool TakesPart();
// A new thread: announced by whoever starts it, entered by itself (it waits for its turn), left at its end.
unsigned AnnounceThread();
void WithdrawThread(unsigned ticket);
void EnterSchedule(unsigned ticket);
void LeaveSchedule();
// By whoever started it, so that it can be found at a join.
void NameThread(unsigned ticket, pthread_t native);
// Until that thread has left, so that joining it takes no time. At once if it takes no part.
void AwaitLeft(pthread_t native);
// The current thread's; kNoTicket outside of a schedule.
unsigned CurrentTicket();

bool ScheduledPark(std::atomic<uint32_t>* word, uint32_t expected, int64_t deadline);
void ScheduledUnpark(std::atomic<uint32_t>* word, unsigned count);
// For the report of a hang: what the next park of this thread is for.
void NoteWaitFor(const char* what, const void* object);

// Another thread that can run goes on.
void SwitchAway();

int64_t ScheduleTime(); // nanoseconds

// Ends the process with the report: every thread's wait and stack.
[[noreturn]] void ReportHang(const char* what);

} // namespace nthost::ke
