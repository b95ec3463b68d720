// Whose turn it is where more than one thread can run. Called under the scheduler's lock.
#pragma once

#include "ke/schedule.h"

namespace nthost::ke {

constexpr int kHangExit = 86;

struct ScheduleChoice {
    const unsigned* Ready;
    unsigned Count; // 2 or more
    unsigned Self;
    unsigned Usual; // who would run without a strategy
    bool GivesWay;  // the running thread asks for another
};

class ScheduleStrategy {
public:
    void Begin(const SchedulePlan& plan, ScheduleLog* log);
    unsigned Choose(const ScheduleChoice& choice);

private:
    static constexpr unsigned kThreads = 256, kMostChanges = 4;
    uint64_t Random();
    unsigned ByReplay(const ScheduleChoice& choice);
    unsigned ByWalk(const ScheduleChoice& choice);
    unsigned ByPriority(const ScheduleChoice& choice);
    unsigned ByBound(const ScheduleChoice& choice) const;
    bool LocateBound(uint64_t rank, unsigned place);

    SchedulePlan plan_{};
    ScheduleLog* log_ = nullptr;
    uint64_t state_ = 0;
    size_t replayed_ = 0;
    bool walks_ = false;
    unsigned density_ = 2; // of a walk: one choice in so many is at random
    uint32_t changes_[kMostChanges] = {};
    unsigned changeCount_ = 0;
    int64_t priorities_[kThreads] = {};
    int64_t lowest_ = 0;
    struct Preemption {
        uint32_t Choice = UINT32_MAX;
        unsigned Other = 0; // which of those that could run as well
    } bound_[2];
};

} // namespace nthost::ke
