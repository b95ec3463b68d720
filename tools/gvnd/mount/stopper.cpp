// The thread that waits for signals.
#include "gvnd/mount/stopper.h"

#include <cerrno>
#include <filesystem>

#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#define FUSE_USE_VERSION 312
#include <fuse3/fuse_lowlevel.h>

#include <fmt/format.h>

namespace tool::mount {

namespace {

namespace fs = std::filesystem;

constexpr int kRetryMilliseconds = 200;

// Lines "PID NAME: PATH" of processes that have something below the directory open, or work in it.
std::vector<std::string> Processes(const std::string& directory)
{
    std::vector<std::string> lines;
    std::error_code error;
    const auto note = [&](const fs::path& process, const fs::path& link) {
        std::error_code ignored;
        const std::string target = fs::read_symlink(link, ignored).string();
        if (target != directory && !target.starts_with(directory + '/')) return;
        lines.push_back(fmt::format("process {}: {}", process.filename().string(), target));
    };
    for (const fs::directory_entry& process : fs::directory_iterator("/proc", error)) {
        const std::string name = process.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos || name == std::to_string(getpid())) continue;
        note(process.path(), process.path() / "cwd");
        std::error_code hidden; // of another user
        for (const fs::directory_entry& fd : fs::directory_iterator(process.path() / "fd", hidden))
            note(process.path(), fd.path());
    }
    return lines;
}

} // namespace

Stopper::Stopper(std::string directory) : directory_(std::move(directory))
{
    sigemptyset(&signals_);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGUSR1}) sigaddset(&signals_, signal);
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

Stopper::~Stopper() { Finish(); }

void Stopper::Start(fuse_session* session, std::function<std::vector<std::string>()> openPaths)
{
    session_ = session;
    openPaths_ = std::move(openPaths);
    thread_ = std::thread([this] { Watch(); });
}

void Stopper::Finish()
{
    ended_ = true;
    if (!thread_.joinable()) return;
    pthread_kill(thread_.native_handle(), SIGUSR1);
    thread_.join();
}

// False after the time, or never for a negative one.
bool Stopper::WaitForSignal(int milliseconds)
{
    siginfo_t info;
    const timespec time = {.tv_sec = milliseconds / 1000, .tv_nsec = milliseconds % 1000 * 1'000'000L};
    for (;;) {
        const int got = milliseconds < 0 ? sigwaitinfo(&signals_, &info) : sigtimedwait(&signals_, &info, &time);
        if (got > 0) return true;
        if (errno == EAGAIN) return false;
    }
}

bool Stopper::TryUnmount()
{
    if (geteuid() == 0) return umount2(directory_.c_str(), UMOUNT_NOFOLLOW) == 0 || errno == EINVAL;
    // Only the helper may, for other users.
    const pid_t child = fork();
    if (child == 0) {
        execlp("fusermount3", "fusermount3", "-u", "-q", "--", directory_.c_str(), nullptr);
        _exit(127);
    }
    int status = 0;
    while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) {}
    return child > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void Stopper::SayWhoHolds()
{
    fmt::print(stderr, "gvnd: {} is in use; it goes as soon as that ends, or at the next signal:\n", directory_);
    for (const std::string& path : openPaths_()) fmt::print(stderr, "  open: {}\n", path);
    for (const std::string& line : Processes(directory_)) fmt::print(stderr, "  {}\n", line);
}

void Stopper::Watch()
{
    WaitForSignal(-1);
    bool told = false;
    while (!ended_) {
        if (TryUnmount()) return; // and the session ends by itself
        if (!told) SayWhoHolds();
        told = true;
        if (!WaitForSignal(kRetryMilliseconds) || ended_) continue;
        // By force: whoever uses it gets errors from now on.
        fuse_session_exit(session_);
        if (geteuid() == 0)
            (void)umount2(directory_.c_str(), MNT_DETACH);
        else
            (void)TryUnmount();
        return;
    }
}

} // namespace tool::mount
