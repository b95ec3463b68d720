// Calls that are under way, and a thread that looks for those which take too long. A stuck one is reported once, with
// the stack of its thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <set>
#include <string>
#include <thread>

#include <sys/types.h>

#include "checker/verifier.h"

namespace checker {

struct Verifier::Running {
    std::string Text;
    std::string Outcome = {};
    pid_t Thread = 0;
    std::chrono::steady_clock::time_point Since = {};
    bool Reported = false;
    Running* Outer = nullptr;
};

struct Verifier::Watchdog {
public:
    Watchdog(Verifier* owner, unsigned milliseconds);
    ~Watchdog();
    void Add(Running* call);
    void Remove(Running* call);

private:
    void Watch();
    void Report(const std::string& text, pid_t thread);

    Verifier* const owner_;
    const std::chrono::milliseconds limit_;
    std::mutex mutex_;
    std::condition_variable stop_;
    bool stopped_ = false;
    std::set<Running*> calls_;
    std::thread thread_; // last: it uses all of the above
};

} // namespace checker
