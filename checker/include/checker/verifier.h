// A layer in front of any plugin table that holds each call to the contract: the kind of its status, what it hands
// back, the thread's state, exceptions, time. What it refuses does not reach the driver: a record that is none is taken
// away, an exception is STATUS_ACCESS_VIOLATION. It can stay on for good; any number of calls may run at once.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gvnd/plugin.h>

namespace checker {

// Where breaches go. Called on the thread of the call, or on the verifier's own for a call that is stuck.
struct Breach {
    std::string Property; // of kProperties
    std::string Call;
    std::string Got;
};
using BreachSink = std::function<void(const Breach&)>;

class Verifier {
public:
    // The table must outlive the verifier, and the verifier what it is mounted as.
    Verifier(const PluginOps* inner, BreachSink sink, unsigned stuckAfterMilliseconds = 5000);
    ~Verifier();
    Verifier(const Verifier&) = delete;
    Verifier& operator=(const Verifier&) = delete;

    // Slots that are null in the inner table are null here.
    PluginOps* Table() { return &table_; }

    // The last call of this thread, as "Read #1 0 100", and its outcome.
    static std::string LastCall();
    static std::string LastOutcome();
    // Whether this thread is inside of an operation.
    static bool InOperation();
    void Break(const char* property, const std::string& call, const std::string& got);
    bool AnyBroken() const { return broken_; }

    // A page that says what the plugin is doing, which outlives the process.
    static constexpr size_t kPageSize = 4096;
    void ShowCallsAt(char* page) { page_ = page; }

    // --- for the thunks
    struct Running;
    struct Watchdog;
    const PluginOps* Inner() const { return inner_; }
    void Begin(Running* call);
    void End(Running* call);
    void Opened(PluginFd fd, const std::string& call);
    void Closed(PluginFd fd);
    static void NTAPI OnMounted(void* context);
    static void NTAPI OnUnmounted(void* context);

private:
    void Notify(const char* name, PluginNotifyFn notification);

    const PluginOps* inner_;
    BreachSink sink_;
    PluginOps table_{};
    char* page_ = nullptr;
    std::atomic<bool> broken_{false};
    std::atomic<unsigned> unmounted_{0};
    std::mutex mutex_;
    std::map<PluginFd, std::string> handles_; // live ones, and the calls that made them
    std::unique_ptr<Watchdog> watchdog_;
};

} // namespace checker
