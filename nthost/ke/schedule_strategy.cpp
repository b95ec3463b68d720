// The strategies. A random walk changes threads at any choice; priorities change at a few, which is what most faults of
// order take; the bounded one goes through all places for one preemption, then for two.
#include "ke/schedule_strategy.h"

#include <algorithm>

namespace nthost::ke {

uint64_t ScheduleStrategy::Random()
{
    state_ += 0x9e3779b97f4a7c15;
    uint64_t z = state_;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
    z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
    return z ^ (z >> 31);
}

void ScheduleStrategy::Begin(const SchedulePlan& plan, ScheduleLog* log)
{
    plan_ = plan;
    log_ = log;
    log_->Choices = log_->SwitchCount = 0;
    state_ = plan.Seed * 0xd1342543de82ef95 + 1;
    replayed_ = 0;
    lowest_ = 0;
    walks_ = plan.How == Strategy::Walk || (plan.How == Strategy::Mixed && plan.Seed % 2);
    density_ = 2u << (2 * (plan.Seed / 2 % 4)); // 2, 8, 32, 128
    for (int64_t& priority : priorities_) priority = static_cast<int64_t>(Random() >> 2) + 1;
    changeCount_ = 1 + static_cast<unsigned>(plan.Seed / 2 % kMostChanges);
    for (uint32_t& change : changes_) change = static_cast<uint32_t>(Random() % std::max(plan.BaseChoices, 1u));
    bound_[0] = bound_[1] = {};
    if (plan.How != Strategy::Bounded || plan.Replays) return;
    uint64_t singles = 0;
    for (uint32_t i = 0; i < std::min(plan.BaseChoices, ScheduleLog::kMaximum); ++i) singles += plan.BaseWidths[i] - 1u;
    if (singles == 0) return;
    if (plan.Seed < singles) {
        (void)LocateBound(plan.Seed, 0);
    } else {
        (void)LocateBound((plan.Seed - singles) / singles % singles, 0);
        (void)LocateBound((plan.Seed - singles) % singles, 1);
    }
}

// The place of the rank-th preemption among all of the schedule without any.
bool ScheduleStrategy::LocateBound(uint64_t rank, unsigned place)
{
    for (uint32_t i = 0; i < std::min(plan_.BaseChoices, ScheduleLog::kMaximum); ++i) {
        const uint64_t others = plan_.BaseWidths[i] - 1u;
        if (rank < others) {
            bound_[place] = {i, static_cast<unsigned>(rank)};
            return true;
        }
        rank -= others;
    }
    return false;
}

unsigned ScheduleStrategy::Choose(const ScheduleChoice& choice)
{
    const unsigned chosen = plan_.Replays                    ? ByReplay(choice)
                            : plan_.How == Strategy::Bounded ? ByBound(choice)
                            : walks_                         ? ByWalk(choice)
                                                             : ByPriority(choice);
    const uint32_t at = log_->Choices++;
    if (at < ScheduleLog::kMaximum) log_->Widths[at] = static_cast<uint8_t>(std::min(choice.Count, 255u));
    if (chosen != choice.Usual && log_->SwitchCount < ScheduleLog::kMaximum)
        log_->Switches[log_->SwitchCount++] = {at, chosen};
    return chosen;
}

// A switch to a thread that cannot run now is left out: after a smaller one has gone, all others may have moved.
unsigned ScheduleStrategy::ByReplay(const ScheduleChoice& choice)
{
    while (replayed_ < plan_.SwitchCount && plan_.Switches[replayed_].Choice < log_->Choices) ++replayed_;
    if (replayed_ == plan_.SwitchCount || plan_.Switches[replayed_].Choice != log_->Choices) return choice.Usual;
    const unsigned wanted = plan_.Switches[replayed_].Thread;
    const unsigned* const end = choice.Ready + choice.Count;
    return std::find(choice.Ready, end, wanted) == end ? choice.Usual : wanted;
}

unsigned ScheduleStrategy::ByWalk(const ScheduleChoice& choice)
{
    const bool blocked = choice.Usual != choice.Self;
    if (!blocked && Random() % density_) return choice.Usual;
    return choice.Ready[Random() % choice.Count];
}

unsigned ScheduleStrategy::ByPriority(const ScheduleChoice& choice)
{
    const uint32_t *const begin = changes_, *const end = changes_ + changeCount_;
    if (choice.GivesWay || std::find(begin, end, log_->Choices) != end) priorities_[choice.Self] = --lowest_;
    unsigned best = choice.Ready[0];
    for (unsigned i = 1; i < choice.Count; ++i)
        if (priorities_[choice.Ready[i]] > priorities_[best]) best = choice.Ready[i];
    return best;
}

unsigned ScheduleStrategy::ByBound(const ScheduleChoice& choice) const
{
    for (const Preemption& preemption : bound_) {
        if (preemption.Choice != log_->Choices) continue;
        unsigned other = preemption.Other % (choice.Count - 1);
        for (unsigned i = 0; i < choice.Count; ++i)
            if (choice.Ready[i] != choice.Usual && other-- == 0) return choice.Ready[i];
    }
    return choice.Usual;
}

} // namespace nthost::ke
