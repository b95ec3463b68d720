// One line on a terminal that is rewritten a few times a second: how much is done, how fast, how long it will take.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace tool {

class ProgressLine {
public:
    // Silent unless wanted and standard error is a terminal. Without a known total there is no remaining time.
    ProgressLine(bool wanted, std::string verb, uint64_t totalBytes = 0);
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    void Update(uint64_t objects, uint64_t bytes);

private:
    using Clock = std::chrono::steady_clock;
    bool wanted_;
    std::string verb_;
    uint64_t totalBytes_;
    Clock::time_point start_ = Clock::now();
    Clock::time_point last_{};
    bool printed_ = false;
};

} // namespace tool
