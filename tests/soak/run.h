// What the threads of a soak share: when to go on, when to stand still, and what was done.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <ntifs.h>

namespace soak {

// A thread's last step, for whoever looks at a hang.
struct Progress {
    std::atomic<uint64_t> Steps = 0;
    std::atomic<const char*> Doing = "nothing";
};

class Run {
public:
    explicit Run(unsigned clients) : clients_(clients), progress_(clients) {}

    bool Ended() const { return ended_; }
    void End();
    // Clients call it with nothing open; it returns when all have, and the picture was taken.
    void StandStill();
    bool WantsQuiet() const { return wantsQuiet_; }
    // Brings all clients to a stand, runs the body, lets them go on. False if the run ended before.
    template <typename Body>
    bool WhileQuiet(Body body)
    {
        std::unique_lock lock(mutex_);
        wantsQuiet_ = true;
        changed_.wait(lock, [this] { return standing_ == clients_ || ended_; });
        const bool quiet = !ended_;
        lock.unlock(); // nobody moves, and the body may complain
        if (quiet) body();
        lock.lock();
        wantsQuiet_ = false;
        changed_.notify_all();
        return quiet;
    }

    Progress& ProgressOf(unsigned client) { return progress_[client]; }
    const std::vector<Progress>& AllProgress() const { return progress_; }
    uint64_t Steps() const;
    // What is wrong however the threads came to stand; ends the run.
    void Complain(const std::string& text);
    std::vector<std::string> Complaints();

    std::atomic<uint64_t> Faults = 0; // injected, or asked for
    std::atomic<uint64_t> Remounts = 0;

private:
    const unsigned clients_;
    std::vector<Progress> progress_;
    std::mutex mutex_;
    std::condition_variable changed_;
    unsigned standing_ = 0;
    std::vector<std::string> complaints_;
    std::atomic<bool> ended_ = false, wantsQuiet_ = false;
};

} // namespace soak
