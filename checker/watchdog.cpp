// Finding stuck calls. The stack of a stuck thread is taken by itself, in a signal handler that only walks it.
#include "watchdog.h"

#include <csignal>
#include <semaphore.h>

#include <execinfo.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <nthost/calls.h>

namespace checker {

namespace {

void* g_frames[40];
int g_frameCount;
sem_t g_walked;

int Signal() { return SIGRTMIN + 3; }

void OnSignal(int)
{
    g_frameCount = backtrace(g_frames, static_cast<int>(std::size(g_frames)));
    sem_post(&g_walked);
}

void InstallHandler()
{
    static const bool installed = [] {
        sem_init(&g_walked, 0, 0);
        backtrace(g_frames, 1); // loads what it needs, which the handler must not
        struct sigaction action = {};
        action.sa_handler = OnSignal;
        action.sa_flags = SA_RESTART;
        sigaction(Signal(), &action, nullptr);
        return true;
    }();
    (void)installed;
}

std::string StackOf(pid_t thread)
{
    if (syscall(SYS_tgkill, getpid(), thread, Signal()) != 0) return {};
    timespec until;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += 1;
    if (sem_timedwait(&g_walked, &until) != 0) return "\n(its stack cannot be walked)";
    std::string text;
    constexpr int kOfTheHandler = 2;
    for (int i = kOfTheHandler; i < g_frameCount; ++i) text += "\n" + nthost::FrameText(g_frames[i]);
    return text;
}

} // namespace

Verifier::Watchdog::Watchdog(Verifier* owner, unsigned milliseconds) : owner_(owner), limit_(milliseconds)
{
    InstallHandler();
    thread_ = std::thread([this] { Watch(); });
}

Verifier::Watchdog::~Watchdog()
{
    {
        const std::lock_guard lock(mutex_);
        stopped_ = true;
    }
    stop_.notify_all();
    thread_.join();
}

void Verifier::Watchdog::Add(Running* call)
{
    thread_local const pid_t self = static_cast<pid_t>(syscall(SYS_gettid));
    call->Thread = self;
    call->Since = std::chrono::steady_clock::now();
    const std::lock_guard lock(mutex_);
    calls_.insert(call);
}

void Verifier::Watchdog::Remove(Running* call)
{
    const std::lock_guard lock(mutex_);
    calls_.erase(call);
}

void Verifier::Watchdog::Report(const std::string& text, pid_t thread)
{
    owner_->Break("call.returns", text,
                  "has run for " + std::to_string(limit_.count()) + " ms, here:" + StackOf(thread));
}

void Verifier::Watchdog::Watch()
{
    std::unique_lock lock(mutex_);
    while (!stop_.wait_for(lock, limit_ / 4, [this] { return stopped_; })) {
        const auto now = std::chrono::steady_clock::now();
        for (Running* call : calls_) {
            if (call->Reported || now - call->Since < limit_) continue;
            call->Reported = true;
            // Its thread waits for nothing of ours; if it returns meanwhile it waits for this lock.
            Report(call->Text, call->Thread);
        }
    }
}

} // namespace checker
