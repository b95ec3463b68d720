// Interrupt, termination and hang-up while a mount is served: the file system is unmounted as soon as nobody uses it,
// and until then the user is told who does. A second signal gives up on that.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <signal.h>

struct fuse_session;

namespace tool::mount {

class Stopper {
public:
    // Blocks the signals in this thread and in all that it starts.
    explicit Stopper(std::string directory);
    ~Stopper();
    Stopper(const Stopper&) = delete;
    Stopper& operator=(const Stopper&) = delete;

    // openPaths is called on a thread of its own, which is attached to nothing.
    void Start(fuse_session* session, std::function<std::vector<std::string>()> openPaths);
    // The session has ended.
    void Finish();

private:
    void Watch();
    bool WaitForSignal(int milliseconds);
    bool TryUnmount();
    void SayWhoHolds();

    const std::string directory_;
    sigset_t signals_;
    fuse_session* session_ = nullptr;
    std::function<std::vector<std::string>()> openPaths_;
    std::atomic<bool> ended_{false};
    std::thread thread_;
};

} // namespace tool::mount
