// Standing still and going on.
#include "soak/run.h"

namespace soak {

void Run::End()
{
    const std::lock_guard lock(mutex_);
    ended_ = true;
    changed_.notify_all();
}

void Run::StandStill()
{
    std::unique_lock lock(mutex_);
    ++standing_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return !wantsQuiet_ || ended_; });
    --standing_;
}

uint64_t Run::Steps() const
{
    uint64_t steps = 0;
    for (const Progress& progress : progress_) steps += progress.Steps.load(std::memory_order_relaxed);
    return steps;
}

void Run::Complain(const std::string& text)
{
    {
        const std::lock_guard lock(mutex_);
        if (complaints_.size() < 20) complaints_.push_back(text);
    }
    End();
}

std::vector<std::string> Run::Complaints()
{
    const std::lock_guard lock(mutex_);
    return complaints_;
}

} // namespace soak
