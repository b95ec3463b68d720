// Makes a failing sequence short: drops runs of steps, long ones first, as long as what is left still fails.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace model {

// fails: whether a sequence still fails; it may cut what comes behind the failure off its argument.
template <typename Step, typename Fails>
std::vector<Step> Shrink(std::vector<Step> steps, Fails fails)
{
    for (size_t run = std::max<size_t>(steps.size() / 2, 1);;) {
        bool dropped = false;
        for (size_t at = 0; at < steps.size();) {
            std::vector<Step> fewer = steps;
            const auto first = fewer.begin() + static_cast<std::ptrdiff_t>(at);
            fewer.erase(first, first + static_cast<std::ptrdiff_t>(std::min(run, fewer.size() - at)));
            if (fails(&fewer)) {
                steps = std::move(fewer);
                dropped = true;
            } else {
                at += run;
            }
        }
        if (run > 1) {
            run /= 2;
        } else if (!dropped) {
            return steps;
        }
    }
}

} // namespace model
