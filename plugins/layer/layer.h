// A layer in front of any plugin table, for tests, tools and plugin authors: notes each call with its argument text,
// and can make the n-th call of an operation fail, raise, fault, return short, or stop at a gate until the test opens
// it. Rows of tests say operations by their slot's name.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gvnd/plugin.h>

namespace layer {

// One call as the plugin saw it: "Lookup \\a\\b", "Read 7 0x0 10", ...
struct PluginCall {
    std::string Operation;
    std::string Arguments;
    NTSTATUS Status; // STATUS_PENDING while it runs, and for good if an exception ended it
    std::chrono::steady_clock::time_point Begun = {};
    std::chrono::nanoseconds Took = {}; // with whatever the layer had to do in between
    std::string Text() const { return Arguments.empty() ? Operation : Operation + " " + Arguments; }
};

class PluginLayer {
public:
    explicit PluginLayer(const PluginOps* inner);
    PluginLayer(const PluginLayer&) = delete;
    PluginLayer& operator=(const PluginLayer&) = delete;

    // Slots that are null in the inner table are null here. The test may null others.
    PluginOps* Table() { return &table_; }

    // --- what was called

    std::vector<PluginCall> Calls() const;
    std::vector<std::string> Texts() const;
    size_t Count(const std::string& operation) const;
    void Clear();
    // Calls are counted all the same, but not noted: for long runs.
    void CountOnly(bool on) { countOnly_ = on; }
    uint64_t Total() const { return total_; }

    // --- what happens in place of the inner operation; nth counts from 1, from now on

    void Fail(const std::string& operation, NTSTATUS status, unsigned nth = 1);
    void Raise(const std::string& operation, NTSTATUS status, unsigned nth = 1);
    void Fault(const std::string& operation, unsigned nth = 1);
    // Runs before the inner operation; gets the request's cancel event.
    void Before(const std::string& operation, std::function<void(PKEVENT cancel)> action, unsigned nth = 1);

    // Every call of the operation waits at the gate until Open. Close it before the calls are made.
    class Gate {
    public:
        void WaitForArrivals(unsigned count); // returns once that many calls stand at the gate
        void Open();
        void Pass();

    private:
        std::mutex mutex_;
        std::condition_variable changed_;
        unsigned arrivals_ = 0;
        bool open_ = false;
    };
    std::shared_ptr<Gate> CloseGate(const std::string& operation);
    void RemoveGate(const std::string& operation);

    unsigned Mounted() const;
    unsigned Unmounted() const;
    // Returns once OnUnmounted has been called. On a thread of nthost's.
    void WaitUntilUnmounted();

    // --- for the thunks

    const PluginOps* Inner() const { return inner_; }
    // Before the operation, so that an exception in it loses nothing: the note's number.
    bool Noting() const { return !countOnly_; }
    size_t Begin(const char* operation, std::string arguments);
    size_t CountOne();
    void End(size_t note, NTSTATUS status);
    // True if the call must not reach the inner operation; *status is then its result.
    bool Intercept(const char* operation, PKEVENT cancel, NTSTATUS* status);
    static void NTAPI OnMounted(void* context);
    static void NTAPI OnUnmounted(void* context);

private:
    static constexpr size_t kNoNote = ~size_t(0);
    struct Plan {
        unsigned CountDown;
        std::function<bool(PKEVENT, NTSTATUS*)> Action;
    };

    const PluginOps* inner_;
    PluginOps table_{};
    std::atomic<bool> countOnly_{false};
    std::atomic<uint64_t> total_{0};
    mutable std::mutex mutex_;
    std::vector<PluginCall> calls_;
    size_t cleared_ = 0; // notes dropped by Clear
    std::multimap<std::string, Plan, std::less<>> plans_;
    std::map<std::string, std::shared_ptr<Gate>, std::less<>> gates_;
    unsigned mounted_ = 0;
    unsigned unmounted_ = 0;
    KEVENT unmountedEvent_;
};

} // namespace layer
